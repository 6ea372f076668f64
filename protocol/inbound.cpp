// Datagrams on the main UDP socket: who sent it, of what kind it is, and one short function per kind. Runs inside the
// event pumps, one datagram a call; never blocks.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/cipher.h"
#include "protocol/datagram.h"
#include "protocol/takedatagram.h"
#include "protocol/uuidscan.h"

#include <QUdpSocket>

#include <logger.h>

#include <algorithm>
#include <functional>

void UDPHandler::readyRead()
{
    QHostAddress address;
    quint16 port = 0;
    QByteArray data = datagram::take(udpSocket, &address, &port);
    if (data.isNull())
        return;

    const bool enciphered = wrapUUID(data).constFirst().isEmpty();
    if (enciphered)
        data = decryptMessage(data);

    // Dropped without a word: whoever is not a known peer must neither learn that somebody listens nor fill the log.
    const QStringList uuids = wrapUUID(data);
    if (uuids.size() != 2 || uuids.at(0).isEmpty() || uuids.at(1).isEmpty())
        return;
    const QString &sender = uuids.at(0);
    if (sender == uuid)
        return;
    const auto peer = remoteClients.find(sender);
    if (peer == remoteClients.end())
        return;

    peer->lastSeen = QDateTime::currentDateTime();
    if (peer->status != static_cast<quint8>(ConnectionStatus::Connected))
        setConnectionStatus(ConnectionStatus::Connected, sender);
    // From here on the peer is answered where this datagram came from: that is the open hole in its router.
    peer->udpPortRemote = port;
    peer->host = address;

    switch (static_cast<DatagramKind>(data.at(0))) {
    case DatagramKind::ConnectRequest:
        takeConnectRequest(sender, address, port);
        break;
    case DatagramKind::KeepAlive:
        takeKeepAlive(sender, address, port, enciphered);
        break;
    case DatagramKind::Confirmation:
        takeConfirmation(data, sender);
        break;
    case DatagramKind::DataPacket:
        takeRequest(data, sender, address, port);
        break;
    }
}

void UDPHandler::takeConnectRequest(const QString &sender, const QHostAddress &address, quint16 port)
{
    // Our own UUID is intended: the peer's row must keep the state Connected that this datagram has just given it.
    setConnectionStatus(ConnectionStatus::Connecting, uuid);
    Logger::logInfo(hostcalls::logCategory(), QStringLiteral("Connection requested from ") + address.toString() +
                                                  QStringLiteral(" on port ") + QString::number(port, 10));
    udpSocket->writeDatagram(encryptMessage(datagram::link(DatagramKind::ConnectRequest, uuid, sender)), address, port);
    dropTraffic(sender);
}

/// A peer that connects anew has forgotten what it asked for, and what is still on its way to it means nothing to it.
void UDPHandler::dropTraffic(const QString &peer)
{
    const auto isRequestOfPeer = [&peer](const UdpMessage *request) { return request->client.remoteUuid == peer; };
    const auto firstOfPeer = std::stable_partition(tcpQueue.begin(), tcpQueue.end(), std::not_fn(isRequestOfPeer));
    std::for_each(firstOfPeer, tcpQueue.end(), [](UdpMessage *request) { delete request; });
    tcpQueue.erase(firstOfPeer, tcpQueue.end());

    const auto isPacketOfPeer = [&peer](const UdpMessage &packet) { return packet.client.remoteUuid == peer; };
    udpQueue.erase(std::remove_if(udpQueue.begin(), udpQueue.end(), isPacketOfPeer), udpQueue.end());
}

void UDPHandler::takeKeepAlive(const QString &sender, const QHostAddress &address, quint16 port, bool enciphered)
{
    const QByteArray echo = datagram::link(DatagramKind::KeepAlive, uuid, sender);
    Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Keep alive received from ") + address.toString());
    udpSocket->writeDatagram(enciphered ? encryptMessage(echo) : echo, address, port);
}

void UDPHandler::takeConfirmation(const QByteArray &data, const QString &sender)
{
    const int msgId = datagram::readInteger<quint16>(data, datagram::messageIdOffset);
    const int count = datagram::readInteger<quint16>(data, datagram::confirmedCountOffset);
    const int index = datagram::readInteger<quint16>(data, datagram::confirmedIndexOffset);
    Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Remote Confirmation of msgID: ") +
                                                   QString::number(msgId, 10) + QStringLiteral(". Package ") +
                                                   QString::number(index, 10) + QStringLiteral(" of ") +
                                                   QString::number(count, 10));

    const auto packet = std::find_if(udpQueue.begin(), udpQueue.end(), [&](const UdpMessage &candidate) {
        return candidate.msgId == msgId && candidate.package == index && candidate.client.remoteUuid == sender &&
               data.contains(candidate.checksum);
    });
    if (packet != udpQueue.end())
        packet->confirmed = true;
}

void UDPHandler::takeRequest(const QByteArray &data, const QString &sender, const QHostAddress &address, quint16 port)
{
    const int msgId = datagram::readInteger<quint16>(data, datagram::messageIdOffset);
    // Taken on receipt, also of a repeated request: the response being cut now carries it, whichever it answers.
    currentSocket = datagram::readInteger<quint16>(data, datagram::socketIdOffset);
    const QString id = QString::number(msgId, 10);
    Logger::logDebug(hostcalls::logCategory(), QStringLiteral("UDP request recv id: ") + id +
                                                   QStringLiteral(" socket: ") + QString::number(currentSocket, 10));

    if (!isKnownRequest(msgId, sender)) {
        auto *request = new UdpMessage; // owned by tcpQueue
        request->client = remoteClients.value(sender);
        request->data = data.mid(datagram::requestPayloadOffset);
        request->msgId = msgId;
        Logger::logDebug(hostcalls::logCategory(),
                         QStringLiteral("Added to TCP queue id: ") + id + QStringLiteral(" socket: ") +
                             QString::number(currentSocket, 10) + QStringLiteral(" Queue size: ") +
                             QString::number(tcpQueue.size() + 1, 10));
        tcpQueue.append(request);
    }

    // Also for a repeated request: the peer repeats it because our first confirmation was lost.
    udpSocket->writeDatagram(encryptMessage(datagram::requestReceipt(data, uuid, sender)), address, port);
    Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Confirmation UDP msg sent! Msgid: ") + id);
}

/// Whether the request waits, is being answered, or was answered less than a minute ago.
bool UDPHandler::isKnownRequest(int msgId, const QString &sender) const
{
    const auto isSame = [&](const UdpMessage &message) {
        return message.msgId == msgId && message.client.remoteUuid == sender;
    };
    return std::any_of(tcpQueue.cbegin(), tcpQueue.cend(),
                       [&](const UdpMessage *request) { return isSame(*request); }) ||
           std::any_of(udpQueue.cbegin(), udpQueue.cend(), isSame);
}

QStringList UDPHandler::wrapUUID(const QByteArray &data) const
{
    return datagram::findUuids(data);
}

QByteArray UDPHandler::calculateChecksum(const QByteArray &data) const
{
    return datagram::checksum(data);
}

QByteArray UDPHandler::encryptMessage(QByteArray message) const
{
    return cipher::encipher(std::move(message), aesKey, aesIv);
}

QByteArray UDPHandler::decryptMessage(QByteArray message) const
{
    return cipher::decipher(std::move(message), aesKey, aesIv);
}
