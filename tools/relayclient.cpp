// The conversation: ConnectRequest until its echo comes, the request until its confirmation comes, then packets, each
// confirmed as often as it comes. In the end another ConnectRequest.

#include "tools/relayclient.h"

#include "protocol/cipher.h"
#include "protocol/uuidscan.h"
#include "tools/peerconfig.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr auto resendSpacing = 500ms;
constexpr std::chrono::milliseconds requestReminder = 5s; // a relay that was restarted has forgotten the request
constexpr std::chrono::milliseconds connectLimit = 10s;
constexpr std::chrono::milliseconds leaveLimit = 3s;
constexpr std::chrono::milliseconds packetMemory = 60s; // as long as the relay itself tells a packet from its like
constexpr quint16 socketId = 1;                         // one request at a time needs no more
} // namespace

RelayClient::RelayClient(const PeerConfig &config, const QHostAddress &box, int timeout, QObject *parent)
    : QObject(parent), m_uuid(config.uuid), m_boxUuid(config.boxUuid), m_box(box), m_port(config.boxPort),
      m_key(config.key), m_iv(config.iv), m_timeout(timeout),
      m_messageId(static_cast<quint16>(QRandomGenerator::global()->generate()))
{
    const bool isIpv4 = box.protocol() == QAbstractSocket::IPv4Protocol;
    m_socket.bind(QHostAddress(isIpv4 ? QHostAddress::AnyIPv4 : QHostAddress::AnyIPv6), 0);
    m_clock.start();
    m_resend.setInterval(resendSpacing);
    connect(&m_socket, &QUdpSocket::readyRead, this, &RelayClient::readDatagrams);
    connect(&m_resend, &QTimer::timeout, this, &RelayClient::tick);
}

void RelayClient::send(const QByteArray &httpRequest)
{
    m_messageId++;
    m_request = datagram::request(m_messageId, socketId, m_uuid, m_boxUuid, httpRequest);
    m_isConfirmed = false;
    m_series = {};
    m_taken = 0;
    m_seen.clear();
    enter(State::Connecting);
}

void RelayClient::leave()
{
    if (m_isHeard)
        enter(State::Leaving);
    else
        emit left();
}

void RelayClient::enter(State state)
{
    m_state = state;
    m_sinceProgress.start();
    if (state == State::Idle)
        m_resend.stop();
    else
        m_resend.start();
    transmitForState();
}

/// What the relay has to hear again and again until it reacts.
void RelayClient::transmitForState()
{
    if (m_state == State::Connecting || m_state == State::Leaving)
        transmit(datagram::link(DatagramKind::ConnectRequest, m_uuid, m_boxUuid));
    else if (m_state == State::Requesting)
        transmit(m_request);
}

void RelayClient::transmit(const QByteArray &plain)
{
    m_sinceTransmit.start();
    m_socket.writeDatagram(cipher::encipher(plain, m_key, m_iv), m_box, m_port);
}

void RelayClient::tick()
{
    if (m_state == State::Leaving && m_sinceProgress.hasExpired(leaveLimit.count()))
        return fail(QStringLiteral("the box does not answer any more"));
    if (m_state == State::Connecting && m_sinceProgress.hasExpired(std::min<qint64>(m_timeout, connectLimit.count())))
        return fail(
            QStringLiteral("no answer from the box: is it there, do key and iv match, and does it list this peer?"));
    if (m_sinceProgress.hasExpired(m_timeout))
        return fail(m_state == State::Requesting ? QStringLiteral("no answer to the request")
                                                 : QStringLiteral("the response is cut short, the rest does not come"));
    const bool isHeld = m_state == State::Requesting && m_isConfirmed;
    if (!isHeld || m_sinceTransmit.hasExpired(requestReminder.count()))
        transmitForState();
}

void RelayClient::fail(const QString &reason)
{
    enter(State::Idle);
    emit failed(reason);
}

void RelayClient::readDatagrams()
{
    do { // read first: a wake-up for a datagram with a bad checksum finds none, and only a read arms the next one
        QByteArray data(static_cast<int>(std::max<qint64>(m_socket.pendingDatagramSize(), 0)), '\0');
        m_socket.readDatagram(data.data(), data.size());
        if (datagram::findUuids(data).constFirst().isEmpty())
            data = cipher::decipher(data, m_key, m_iv);
        if (datagram::findUuids(data) != QStringList{m_boxUuid, m_uuid})
            continue;

        m_isHeard = true;
        const auto kind = static_cast<DatagramKind>(data.at(0));
        if (kind == DatagramKind::ConnectRequest && m_state == State::Connecting) {
            enter(State::Requesting);
        } else if (kind == DatagramKind::ConnectRequest && m_state == State::Leaving) {
            enter(State::Idle);
            emit left();
        } else if (kind == DatagramKind::Confirmation && m_state == State::Requesting) {
            m_isConfirmed |= datagram::readInteger<quint16>(data, datagram::messageIdOffset) == m_messageId;
        } else if (kind == DatagramKind::DataPacket && data.size() >= datagram::responsePayloadOffset) {
            takePacket(data);
        }
    } while (m_socket.hasPendingDatagrams());
}

void RelayClient::takePacket(const QByteArray &packet)
{
    const datagram::ResponseHeader header = datagram::readResponseHeader(packet);
    const QByteArray slice = packet.mid(datagram::responsePayloadOffset);
    // Always: the relay sends nothing else to anybody before this packet is confirmed.
    transmit(datagram::packetReceipt(header, m_uuid, m_boxUuid, slice));

    const bool isExpected = m_state == State::Requesting || m_state == State::Receiving;
    if (isExpected && header.messageId == m_messageId && !isRepeated(packet)) {
        m_state = State::Receiving;
        m_sinceProgress.start();
        takeSlice(header, slice);
    }
}

bool RelayClient::isRepeated(const QByteArray &packet)
{
    // Without kind and ids, of which the socket id may change between two sends.
    const QByteArray key = QCryptographicHash::hash(packet.mid(datagram::socketIdOffset + 2), QCryptographicHash::Sha1);
    const auto seen = m_seen.constFind(key);
    const bool isKnown = seen != m_seen.constEnd() && m_clock.elapsed() - *seen < packetMemory.count();
    m_seen.insert(key, m_clock.elapsed());
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
        return fail(QStringLiteral("the response is cut short, packet %1 of %2 came too early")
                        .arg(header.index)
                        .arg(header.count));
    m_taken = (isNewSeries ? 0 : m_taken) + static_cast<quint32>(slice.size());
    m_series = header;
    emit received(slice);
    if (header.index + 1 != header.count)
        return;
    if (m_taken != header.totalLength)
        return fail(
            QStringLiteral("the response is cut short, %1 of %2 bytes came").arg(m_taken).arg(header.totalLength));
    emit seriesEnded();
}
