// Local discovery: a program on the LAN asks on the discovery port, in plain, and becomes a connected peer. Runs inside
// the event pumps, one datagram a call; may block until the reply is written.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"
#include "protocol/takedatagram.h"

#include <QUdpSocket>

#include <logger.h>

#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr char discoveryRequest = 2;
constexpr std::chrono::milliseconds replyWait = 30s;
} // namespace

void UDPHandler::readyReadDiscover()
{
    QHostAddress address;
    quint16 port = 0;
    const QByteArray data = datagram::take(discoverSocket, &address, &port);

    const QString peer = wrapUUID(data).constFirst();
    if (peer.isEmpty() || peer == uuid)
        return;
    // A known peer is forgotten first, whatever it says: a datagram of any type but a request is how a peer leaves.
    if (remoteClients.remove(peer) == 0)
        Logger::logInfo(hostcalls::logCategory(),
                        QStringLiteral("Local client connected through UDP discover. Host: ") + address.toString() +
                            QStringLiteral(" UUID: ") + peer);
    if (!data.startsWith(discoveryRequest))
        return;

    const QByteArray reply =
        datagram::announcement(static_cast<quint8>(discoveryRequest), tcpPort, udpPort, uuid).append(peer.toUtf8());
    discoverSocket->writeDatagram(reply, address, port);
    discoverSocket->waitForBytesWritten(static_cast<int>(replyWait.count()));

    RemoteClient client;
    client.host = address;
    client.udpPort = udpPort; // a peer on the LAN is expected to listen where the box does
    client.remoteUuid = peer;
    remoteClients.insert(peer, client);
    setConnectionStatus(ConnectionStatus::Connected, peer);
}
