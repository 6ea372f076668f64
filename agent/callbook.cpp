// One answer for each connection, without a question: everything, then the end.

#include "agent/callbook.h"

#include "agent/addresses.h"
#include "agent/onlyone.h"
#include "introduction/hostaddress.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonValue>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

namespace
{
constexpr int mostWaiting = 8;
constexpr int longestText = 1 << 24; // bytes: what goes on and on is no agent, but has taken its name
constexpr std::chrono::milliseconds longestTalk = std::chrono::seconds(2);
constexpr timeval patience{0, 200000}; // us, for a program of our own user that does not read

int secondsOf(Moment time)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(time).count());
}

/// Whoever may read the store may read this.
bool mayRead(int socket)
{
    ucred other = {};
    socklen_t length = sizeof other;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &other, &length) == 0 &&
           (other.uid == geteuid() || other.uid == 0);
}
} // namespace

CallBook::CallBook(std::function<Moment()> now, QObject *parent) : QObject(parent), m_now(std::move(now)) {}

void CallBook::note(const Guest &guest)
{
    Entry &entry = m_entries[guest.uuid];
    entry.called = m_now();
    entry.from = guest.seen;
    const bool wantsMore = guest.relayed || guest.wantsBurst; // beside the way that it may have already
    if (guest.openWay || !wantsMore) {
        entry.way = guest.openWay;
        entry.wayOpened = entry.called;
    }
}

void CallBook::showAt(int socket)
{
    listen(socket, mostWaiting);
    m_notifier.reset(); // the socket before may have had the same number
    m_notifier = std::make_unique<QSocketNotifier>(socket, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &CallBook::show);
}

QJsonObject CallBook::contents() const
{
    QJsonObject contents;
    for (auto entry = m_entries.cbegin(); entry != m_entries.cend(); ++entry) {
        QJsonObject call{{QStringLiteral("call_seconds"), secondsOf(m_now() - entry->called)}};
        if (entry->from.port != 0)
            call.insert(QStringLiteral("called_from"), textOf(entry->from));
        if (entry->way) {
            call.insert(QStringLiteral("way"), QLatin1String(introduction::nameOf(*entry->way)));
            call.insert(QStringLiteral("way_seconds"), secondsOf(m_now() - entry->wayOpened));
        }
        contents.insert(entry.key(), call);
    }
    return contents;
}

void CallBook::show() const
{
    const int other = accept4(static_cast<int>(m_notifier->socket()), nullptr, nullptr, SOCK_CLOEXEC);
    if (other < 0)
        return;
    if (mayRead(other)) {
        setsockopt(other, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        const QByteArray text = QJsonDocument(contents()).toJson(QJsonDocument::Compact);
        send(other, text.constData(), static_cast<std::size_t>(text.size()), MSG_NOSIGNAL);
    }
    close(other);
}

QJsonObject askCallBook(quint16 port)
{
    const int agent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const AgentName name(port);
    const timeval limit{2, 0}; // s; an agent that is well answers at once
    QByteArray text;
    if (setsockopt(agent, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
        setsockopt(agent, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
        connect(agent, reinterpret_cast<const sockaddr *>(&name.address), name.length) == 0) {
        std::array<char, 65536> part = {};
        const QDeadlineTimer end(longestTalk);
        ssize_t length = 1;
        while (length > 0 && text.size() < longestText && !end.hasExpired()) {
            length = recv(agent, part.data(), part.size(), 0);
            text.append(part.data(), static_cast<int>(std::max<ssize_t>(length, 0)));
        }
    }
    if (agent >= 0)
        close(agent);
    return QJsonDocument::fromJson(text).object();
}
