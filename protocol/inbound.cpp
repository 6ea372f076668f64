// Datagrams on the main UDP socket: who sent it, of what kind it is, and one short function per kind. Runs inside the
// event pumps, one datagram a call; waits for the store where a peer becomes connected
// or asks for it.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"
#include "protocol/datagramio.h"

#include <QUdpSocket>

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
    if (!peer->isIn(ConnectionStatus::Connected))
        setConnectionStatus(ConnectionStatus::Connected, sender);
    // From here on the peer is answered where this datagram came from: that is the open hole in its router.
    peer->udpPortRemote = port;
    peer->host = address;

    switch (static_cast<DatagramKind>(data.at(0))) {
    case DatagramKind::ConnectRequest:
        takeConnectRequest(*peer);
        break;
    case DatagramKind::KeepAlive:
        takeKeepAlive(*peer, enciphered);
        break;
    case DatagramKind::Confirmation:
        takeConfirmation(*peer, data);
        break;
    case DatagramKind::DataPacket:
        takeRequest(*peer, data);
        break;
    }
}

void UDPHandler::answer(const RemoteClient &peer, const QByteArray &data)
{
    udpSocket->writeDatagram(data, peer.host, static_cast<quint16>(peer.udpPortRemote));
}

void UDPHandler::takeConnectRequest(const RemoteClient &peer)
{
    // Our own UUID is intended: the peer's row must keep the state Connected that this datagram has just given it.
    setConnectionStatus(ConnectionStatus::Connecting, uuid);
    hostcalls::logInfo(QStringLiteral("Connection requested from ") + peer.host.toString() +
                       QStringLiteral(" on port ") + QString::number(peer.udpPortRemote, 10));
    answer(peer, encryptMessage(datagram::link(DatagramKind::ConnectRequest, uuid, peer.remoteUuid)));
    // A peer that connects anew has forgotten what it asked for, and what is still on its way means nothing to it.
    dropRequests(peer.remoteUuid);
    dropPackets(peer.remoteUuid);
}

void UDPHandler::dropRequests(const QString &peerUuid)
{
    const auto isOfPeer = [&peerUuid](const UdpMessage *request) { return request->client.remoteUuid == peerUuid; };
    const auto firstOfPeer = std::stable_partition(tcpQueue.begin(), tcpQueue.end(), std::not_fn(isOfPeer));
    std::for_each(firstOfPeer, tcpQueue.end(), [](UdpMessage *request) { delete request; });
    tcpQueue.erase(firstOfPeer, tcpQueue.end());
}

void UDPHandler::takeKeepAlive(const RemoteClient &peer, bool enciphered)
{
    const QByteArray echo = datagram::link(DatagramKind::KeepAlive, uuid, peer.remoteUuid);
    hostcalls::logDebug(QStringLiteral("Keep alive received from ") + peer.host.toString());
    answer(peer, enciphered ? encryptMessage(echo) : echo);
}

void UDPHandler::takeConfirmation(const RemoteClient &peer, const QByteArray &data)
{
    const int msgId = datagram::readInteger<quint16>(data, datagram::messageIdOffset);
    const int count = datagram::readInteger<quint16>(data, datagram::confirmedCountOffset);
    const int index = datagram::readInteger<quint16>(data, datagram::confirmedIndexOffset);
    hostcalls::logDebug(QStringLiteral("Remote Confirmation of msgID: ") + QString::number(msgId, 10) +
                        QStringLiteral(". Package ") + QString::number(index, 10) + QStringLiteral(" of ") +
                        QString::number(count, 10));

    const auto packet = std::find_if(udpQueue.begin(), udpQueue.end(), [&](const UdpMessage &candidate) {
        return candidate.msgId == msgId && candidate.package == index &&
               candidate.client.remoteUuid == peer.remoteUuid && data.contains(candidate.checksum);
    });
    if (packet != udpQueue.end())
        packet->confirmed = true;
}

void UDPHandler::takeRequest(const RemoteClient &peer, const QByteArray &data)
{
    const int msgId = datagram::readInteger<quint16>(data, datagram::messageIdOffset);
    // Taken on receipt, also of a repeated request: the response being cut now carries it, whichever it answers.
    currentSocket = datagram::readInteger<quint16>(data, datagram::socketIdOffset);
    const QString id = QString::number(msgId, 10);
    hostcalls::logDebug(QStringLiteral("UDP request recv id: ") + id + QStringLiteral(" socket: ") +
                        QString::number(currentSocket, 10));

    if (!isKnownRequest(msgId, peer.remoteUuid)) {
        auto *request = new UdpMessage; // owned by tcpQueue
        request->client = peer;
        request->data = data.mid(datagram::requestPayloadOffset);
        request->msgId = msgId;
        hostcalls::logDebug(QStringLiteral("Added to TCP queue id: ") + id + QStringLiteral(" socket: ") +
                            QString::number(currentSocket, 10) + QStringLiteral(" Queue size: ") +
                            QString::number(tcpQueue.size() + 1, 10));
        tcpQueue.append(request);
    }

    // Also for a repeated request: the peer repeats it because our first confirmation was lost.
    answer(peer, encryptMessage(datagram::requestReceipt(data, uuid, peer.remoteUuid)));
    hostcalls::logDebug(QStringLiteral("Confirmation UDP msg sent! Msgid: ") + id);
}

/// Whether the request waits, is being answered, or was answered less than a minute ago.
bool UDPHandler::isKnownRequest(int msgId, const QString &peerUuid) const
{
    const auto isSame = [&](const UdpMessage &message) {
        return message.msgId == msgId && message.client.remoteUuid == peerUuid;
    };
    return std::any_of(tcpQueue.cbegin(), tcpQueue.cend(),
                       [&](const UdpMessage *request) { return isSame(*request); }) ||
           std::any_of(udpQueue.cbegin(), udpQueue.cend(), isSame);
}
