#include "agent/relaywatch.h"

#include <ctime>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::seconds leastSetBack = 10s; // the relay may stand still for so long
// Single datagrams, of which a bad line loses one in five.
constexpr int lostRegistrations = 6;
constexpr int registrationsToCome = 3;            // since the server has answered again
constexpr std::chrono::hours restartSpacing = 1h; // the server may lie
constexpr quint16 webPort = 80;

std::chrono::milliseconds timeOf(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::seconds(time.tv_sec) +
                                                                 std::chrono::nanoseconds(time.tv_nsec));
}
} // namespace

RelayWatch::RelayWatch(QObject *parent) : QObject(parent)
{
    m_clock.start();
    connect(&m_web, &QTcpSocket::connected, this, [this] { m_web.write("HEAD / HTTP/1.0\r\n\r\n"); });
    connect(&m_web, &QTcpSocket::readyRead, this, [this] {
        m_webAnswered = m_webAnswered.value_or(now());
        m_web.abort();
    });
    connect(&m_web, &QTcpSocket::errorOccurred, this, [this] { m_webAnswered.reset(); });
}

void RelayWatch::onAnswer(std::optional<std::chrono::seconds> relayAge)
{
    m_answered = m_answered.value_or(now());
    if (relayAge)
        m_relaySeen = now() - *relayAge;
}

void RelayWatch::look(std::chrono::seconds interval)
{
    const auto back = setBack(timeOf(CLOCK_REALTIME), timeOf(CLOCK_BOOTTIME));
    if (back > 0s)
        emit mustRestart(QStringLiteral("The clock was set back by %1 s, for which nat-relayd's periods stand still.")
                             .arg(back.count()));
    lookAtRegistrations(interval);
}

std::chrono::seconds RelayWatch::setBack(std::chrono::milliseconds wall, std::chrono::milliseconds steady)
{
    const auto offset = wall - steady;
    const auto back = m_offset.value_or(offset) - offset;
    m_offset = offset;
    return back >= leastSetBack ? std::chrono::duration_cast<std::chrono::seconds>(back) : 0s;
}

/// Whoever has been heard once is missed; the web server must have answered for as long as the relay may need to
/// notice.
void RelayWatch::lookAtRegistrations(std::chrono::seconds interval)
{
    if (interval <= 0s || !m_relaySeen || !m_answered || now() - *m_relaySeen < lostRegistrations * interval ||
        now() - *m_answered < registrationsToCome * interval ||
        (m_restarted && now() - *m_restarted < restartSpacing)) {
        m_webAnswered.reset();
        return;
    }
    if (m_webAnswered && now() - *m_webAnswered > interval) {
        const auto age = std::chrono::duration_cast<std::chrono::seconds>(now() - *m_relaySeen);
        forget();
        m_restarted = now();
        emit mustRestart(
            QStringLiteral("nat-relayd has not registered for %1 s, while the web server answers.").arg(age.count()));
        return;
    }
    if (m_web.state() != QAbstractSocket::UnconnectedState) // not answered since the last look
        m_webAnswered.reset();
    m_web.abort();
    m_web.connectToHost(QHostAddress(QHostAddress::LocalHost), webPort);
}

void RelayWatch::forget()
{
    m_relaySeen.reset();
    m_answered.reset();
    m_webAnswered.reset();
}
