// The way out: response packets go to the peers one at a time, the first unconfirmed of the whole queue, again every
// 500 ms until its confirmation comes. Runs once a turn; blocks only while the network refuses to send.

#include "core/clock.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagramio.h"

#include <QCoreApplication>
#include <QThread>
#include <QUdpSocket>

#include <algorithm>

using namespace std::chrono_literals;

namespace
{
constexpr auto resendSpacing = 500ms; // a peer's confirmation normally beats this by far
constexpr int maxPasses = 49;         // the pass after this one gives the peer up, after 25 s at the least
constexpr int maxAttempts = 6;        // per pass, while the network refuses the datagram
constexpr int refusalPumps = 500;     // steps of 1 ms between two attempts, in which confirmations are taken in
constexpr auto pumpPause = 1ms;
constexpr auto confirmedLifetime = 60s; // so long a repeated request is known as answered
} // namespace

void UDPHandler::sendNextPacket()
{
    const auto next = std::find_if(udpQueue.cbegin(), udpQueue.cend(),
                                   [](const UdpMessage &candidate) { return !candidate.confirmed; });
    if (next == udpQueue.cend() || !hasElapsed(next->lastSent, resendSpacing))
        return;

    const QByteArray packet = next->data;
    sendUntilAccepted(packet);

    const auto sent = findPacket(packet);
    if (sent == udpQueue.end())
        return;
    sent->tries++; // a pass in which every attempt was refused counts like any other
    sent->lastSent = QDateTime::currentDateTime();
    if (sent->tries > maxPasses) {
        const QString peerUuid = sent->client.remoteUuid;
        setConnectionStatus(ConnectionStatus::Disconnected, peerUuid);
        dropPackets(peerUuid);
    }
}

void UDPHandler::dropPackets(const QString &peerUuid)
{
    const auto isOfPeer = [&peerUuid](const UdpMessage &packet) { return packet.client.remoteUuid == peerUuid; };
    udpQueue.erase(std::remove_if(udpQueue.begin(), udpQueue.end(), isOfPeer), udpQueue.end());
}

/// The packet's place in the queue, or its end. The queue changes while an attempt waits; a packet is known again by
/// where its bytes lie, for the caller's copy shares them and keeps them there.
QList<UDPHandler::UdpMessage>::iterator UDPHandler::findPacket(const QByteArray &packet)
{
    return std::find_if(udpQueue.begin(), udpQueue.end(), [&packet](const UdpMessage &message) {
        return message.data.constData() == packet.constData();
    });
}

/// Sends the packet once, trying again while the network refuses it and it is still in the queue.
void UDPHandler::sendUntilAccepted(const QByteArray &packet)
{
    for (int attempt = 1; attempt <= maxAttempts; attempt++) {
        const auto message = findPacket(packet);
        if (message == udpQueue.end() || message->confirmed) // while the attempt before waited
            return;
        const QHostAddress host = message->client.host;
        const auto port = static_cast<quint16>(message->client.udpPortRemote);
        const QByteArray wire = encryptMessage(packet);
        if (udpSocket->writeDatagram(wire.constData(), wire.size(), host, port) != -1)
            return;

        hostcalls::logWarning(QStringLiteral("UDP error ") + udpSocket->errorString() + QStringLiteral(" (") +
                              QString::number(udpSocket->error(), 10) + QStringLiteral(") .. sending again to ") +
                              host.toString() + QLatin1Char(':') + QString::number(port, 10));
        udpSocket->flush();
        udpSocket->waitForBytesWritten(datagram::writeWait);
        for (int pump = 0; pump < refusalPumps; pump++) {
            QCoreApplication::processEvents();
            QThread::msleep(pumpPause.count());
        }
    }
    // One character, not digits, for the id of the request being answered, not of this packet: on purpose.
    hostcalls::logError(QStringLiteral("UDP message failed to be sent.") + udpSocket->errorString() +
                        QStringLiteral(" MsgID: ") + QChar(currentRequestId & 0xff));
}

/// Confirmed packets stay for a minute, so that a request repeated by its peer is not served twice.
void UDPHandler::dropExpiredPackets()
{
    ElapsedTest isOver(confirmedLifetime);
    const auto isExpired = [&isOver](const UdpMessage &message) {
        return message.confirmed && isOver(message.lastSent);
    };
    udpQueue.erase(std::remove_if(udpQueue.begin(), udpQueue.end(), isExpired), udpQueue.end());
}
