// The conversation: a ConnectRequest until its echo comes where the relay may hold something of ours, the request until
// its confirmation comes, then packets, each confirmed as often as it comes.

#include "client/relay/relayclient.h"

#include "client/path/boxpath.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr auto resendSpacing = 500ms;
constexpr std::chrono::milliseconds reminder = 5s;     // a relay that was restarted has forgotten the request
constexpr std::chrono::milliseconds pathPatience = 4s; // unconfirmed so long, the request has no path any more
constexpr std::chrono::milliseconds leaveLimit = 3s;
constexpr std::chrono::milliseconds packetMemory = 60s; // as long as the relay itself tells a packet from its like
constexpr int mostSeen = 10000;                         // more than the relay sends in that time
constexpr quint16 socketId = 1;                         // one request at a time needs no more
} // namespace

RelayClient::RelayClient(BoxPath *path, QString uuid, QString boxUuid, int timeout, QObject *parent)
    : QObject(parent), m_path(path), m_uuid(std::move(uuid)), m_boxUuid(std::move(boxUuid)), m_timeout(timeout),
      m_messageId(static_cast<quint16>(QRandomGenerator::global()->generate()))
{
    m_clock.start();
    m_resend.setInterval(resendSpacing);
    connect(&m_resend, &QTimer::timeout, this, &RelayClient::tick);
    connect(path, &BoxPath::received, this, &RelayClient::take);
    connect(path, &BoxPath::opened, this, [this] {
        if (m_state == State::Opening)
            proceed();
    });
    connect(path, &BoxPath::failed, this, [this](const QString &reason) {
        if (m_state == State::Opening)
            fail(Failure::NoAnswer, reason);
    });
}

QByteArray RelayClient::request(const QByteArray &http)
{
    return datagram::request(++m_messageId, socketId, m_uuid, m_boxUuid, http);
}

void RelayClient::send(const QByteArray &httpRequest, bool mayRepeat)
{
    // While the web server works on an abandoned request, its answer would be taken for that to the next one. So a
    // harmless one goes first: whatever comes, the relay closes its link to the web server behind it.
    m_isFlushed = m_mayLinger && !m_mustClear;
    m_flush = m_isFlushed ? request("HEAD / HTTP/1.0\r\nHost: localhost\r\n\r\n") : QByteArray();
    m_request = request(httpRequest);
    m_mayRepeat = mayRepeat;
    m_series = {};
    m_taken = 0;
    m_traffic = {};
    m_seen.clear();
    m_sinceHeld.invalidate();
    m_hasReopened = false;
    if (m_path->isFresh())
        proceed();
    else
        enter(State::Opening);
}

/// The path is open: on with what comes before the request, if anything, or with the request.
void RelayClient::proceed()
{
    if (!m_isClean)
        enter(State::Clearing);
    else
        enter(m_flush.isEmpty() ? State::Requesting : State::Flushing);
}

void RelayClient::finish(bool isRelayDone)
{
    m_isClean = isRelayDone && !m_mustClear;
    enter(State::Idle);
}

void RelayClient::abandon()
{
    m_isClean = false;
    m_mayLinger = true;
    enter(State::Idle);
}

void RelayClient::leave()
{
    if (m_path->isFresh())
        enter(State::Leaving);
    else
        emit left();
}

void RelayClient::enter(State state)
{
    if (m_state == State::Leaving)
        return;
    m_state = state;
    m_sinceProgress.start();
    if (state == State::Idle)
        m_resend.stop();
    else
        m_resend.start();
    if (state == State::Opening)
        m_path->open();
    else
        transmit();
}

/// What the relay has to hear again and again until it reacts.
void RelayClient::transmit()
{
    m_sinceTransmit.start();
    if (m_state == State::Clearing || m_state == State::Leaving)
        m_path->send(datagram::link(DatagramKind::ConnectRequest, m_uuid, m_boxUuid));
    else if (m_state == State::Flushing)
        m_path->send(m_flush);
    else if (m_state == State::Requesting)
        m_path->send(m_request);
}

void RelayClient::tick()
{
    const auto isStuck = [this](std::chrono::milliseconds time) { return m_sinceProgress.hasExpired(time.count()); };
    if (m_state == State::Opening)
        return; // the path has its own limit
    if (m_state == State::Leaving)
        return isStuck(leaveLimit) ? emit left() : transmit();
    if (isStuck(std::chrono::milliseconds(m_timeout)))
        return m_state == State::Receiving
                   ? fail(Failure::CutShort, QStringLiteral("the response is cut short, the rest does not come"))
                   : fail(Failure::NoAnswer, QStringLiteral("no answer to the request"));

    const bool isHeld = m_state == State::Requesting && m_sinceHeld.isValid();
    if (!isHeld && m_state != State::Receiving && !m_hasReopened && isStuck(pathPatience)) {
        m_hasReopened = true;
        enter(State::Opening);
    } else if (!isHeld || (m_mayRepeat && m_sinceTransmit.hasExpired(reminder.count()))) {
        transmit();
    }
}

void RelayClient::fail(Failure failure, const QString &reason)
{
    // Behind a request that only closes a link, this one should have been answered: the relay must be one that takes
    // the response for an endless one, as it does after a page that looks like the beginning of chunks.
    m_mustClear |= m_isFlushed && failure == Failure::NoAnswer && m_sinceHeld.isValid();
    abandon();
    emit failed(failure, reason);
}

void RelayClient::take(const QByteArray &data)
{
    const auto kind = static_cast<DatagramKind>(data.at(0));
    if (kind == DatagramKind::ConnectRequest && m_state == State::Clearing) {
        m_isClean = true;
        proceed();
    } else if (kind == DatagramKind::ConnectRequest && m_state == State::Leaving) {
        emit left();
    } else if (kind == DatagramKind::Confirmation) {
        takeConfirmation(datagram::readInteger<quint16>(data, datagram::messageIdOffset));
    } else if (kind == DatagramKind::DataPacket && data.size() >= datagram::responsePayloadOffset) {
        takePacket(data);
    }
}

void RelayClient::takeConfirmation(quint16 messageId)
{
    if (m_state == State::Flushing && messageId == datagram::readInteger<quint16>(m_flush, datagram::messageIdOffset)) {
        m_mayLinger = false;
        m_flush.clear();
        proceed();
    } else if (m_state == State::Requesting && messageId == m_messageId && !m_sinceHeld.isValid()) {
        m_sinceHeld.start();
    }
}

void RelayClient::takePacket(const QByteArray &packet)
{
    const datagram::ResponseHeader header = datagram::readResponseHeader(packet);
    const QByteArray slice = packet.mid(datagram::responsePayloadOffset);
    // Always: the relay sends nothing else to anybody before this packet is confirmed.
    m_path->send(datagram::packetReceipt(header, m_uuid, m_boxUuid, slice));

    const bool isExpected = m_state == State::Requesting || m_state == State::Receiving;
    if (!isExpected || header.messageId != m_messageId)
        return;
    if (isRepeated(packet)) {
        m_traffic.repeats++;
        return;
    }
    m_state = State::Receiving;
    m_sinceProgress.start();
    m_traffic.packets++;
    m_traffic.bytes += slice.size();
    takeSlice(header, slice);
}

bool RelayClient::isRepeated(const QByteArray &packet)
{
    // Without kind and ids, of which the socket id may change between two sends.
    const QByteArray key = QCryptographicHash::hash(packet.mid(datagram::socketIdOffset + 2), QCryptographicHash::Sha1);
    const auto seen = m_seen.constFind(key);
    const qint64 now = m_clock.elapsed();
    const auto isOld = [now](qint64 time) { return now - time >= packetMemory.count(); };
    const bool isKnown = seen != m_seen.constEnd() && !isOld(*seen);
    m_seen.insert(key, now);
    if (m_seen.size() > mostSeen) { // a response without end
        for (auto entry = m_seen.begin(); entry != m_seen.end();)
            entry = isOld(*entry) ? m_seen.erase(entry) : std::next(entry);
    }
    return isKnown;
}

/// The relay keeps one packet in flight, so what is new is next.
void RelayClient::takeSlice(const datagram::ResponseHeader &header, const QByteArray &slice)
{
    const bool isNewSeries = m_series.count == 0 || m_series.index + 1 == m_series.count;
    const bool isNext = isNewSeries ? header.index == 0
                                    : header.index == m_series.index + 1 && header.count == m_series.count &&
                                          header.totalLength == m_series.totalLength;
    if (!isNext)
        return fail(Failure::CutShort, QStringLiteral("the response is cut short, packet %1 of %2 came too early")
                                           .arg(header.index)
                                           .arg(header.count));
    m_taken = (isNewSeries ? 0 : m_taken) + static_cast<quint32>(slice.size());
    m_series = header;
    emit received(slice);
    if (m_state != State::Receiving || header.index + 1 != header.count)
        return;
    if (m_taken != header.totalLength)
        return fail(
            Failure::CutShort,
            QStringLiteral("the response is cut short, %1 of %2 bytes came").arg(m_taken).arg(header.totalLength));
    emit seriesEnded();
}
