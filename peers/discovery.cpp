// Local discovery: a program on the LAN asks on the discovery port, in plain, and becomes a connected peer. Runs inside
// the event pumps, one datagram a call; waits for the reply to be written and for the store.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"
#include "protocol/datagramio.h"

#include <QUdpSocket>

namespace
{
constexpr char discoveryRequest = 2;
} // namespace

void UDPHandler::readyReadDiscover()
{
    QHostAddress address;
    quint16 port = 0;
    const QByteArray data = datagram::take(discoverSocket, &address, &port);

    const QString peerUuid = wrapUUID(data).constFirst();
    if (peerUuid.isEmpty() || peerUuid == uuid)
        return;
    // A known peer is forgotten first, whatever it says: a datagram of any type but a request is how a peer leaves.
    if (remoteClients.remove(peerUuid) == 0)
        hostcalls::logInfo(QStringLiteral("Local client connected through UDP discover. Host: ") + address.toString() +
                           QStringLiteral(" UUID: ") + peerUuid);
    if (!data.startsWith(discoveryRequest))
        return;

    const QByteArray reply =
        datagram::announcement(static_cast<quint8>(discoveryRequest), tcpPort, udpPort, uuid).append(peerUuid.toUtf8());
    discoverSocket->writeDatagram(reply, address, port);
    discoverSocket->waitForBytesWritten(datagram::writeWait);

    RemoteClient client;
    client.host = address;
    client.udpPort = udpPort; // a peer on the LAN is expected to listen where the box does
    client.remoteUuid = peerUuid;
    remoteClients.insert(peerUuid, client);
    setConnectionStatus(ConnectionStatus::Connected, peerUuid);
}
