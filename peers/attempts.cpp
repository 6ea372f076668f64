// The way to the peers: bursts that open a path through both routers, and the end of peers that fell silent. Runs once
// a turn over the table; blocks for as long as a burst takes to be written.

#include "core/clock.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"

#include <QUdpSocket>
#include <QVector>

#include <logger.h>

using namespace std::chrono_literals;

namespace
{
constexpr int announcedPortRepeats = 800; // to the port next to the announced one, where many routers map next
constexpr int sweepFirst = -400;          // ports around the one seen from outside, for routers that count on
constexpr int sweepEnd = 400;             // not included
constexpr int noPort = -1;                // in the store: this run is not wanted
constexpr auto silenceLimit = 60s;
constexpr std::chrono::milliseconds writeWait = 30s;

/// Port `offset` away from `port`, around the end of the port range.
quint16 shifted(int port, int offset)
{
    return static_cast<quint16>(static_cast<quint32>(port) + static_cast<quint32>(offset));
}
} // namespace

void UDPHandler::attendPeers()
{
    // Copies, as the pass works on the state of its start; only of those that have to be attended to, as a copy of the
    // whole table would be made in every turn that writes a status.
    QVector<RemoteClient> due;
    ElapsedTest isSilent(silenceLimit);
    for (const RemoteClient &peer : qAsConst(remoteClients)) {
        if (peer.status == static_cast<quint8>(ConnectionStatus::Connecting) ||
            (peer.status == static_cast<quint8>(ConnectionStatus::Connected) && isSilent(peer.lastSeen)))
            due.append(peer);
    }
    for (const RemoteClient &peer : qAsConst(due)) {
        if (peer.status == static_cast<quint8>(ConnectionStatus::Connecting)) {
            attemptConnection(peer);
        } else {
            Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Remote client was timeouted: ") +
                                                           remoteClients.value(peer.remoteUuid).host.toString());
            setConnectionStatus(ConnectionStatus::Disconnected, peer.remoteUuid);
        }
    }
}

void UDPHandler::attemptConnection(const RemoteClient &peer)
{
    // Interval and limit count as unsigned: below zero means "hardly ever" and "without end".
    const std::chrono::milliseconds interval(static_cast<quint32>(connectionInterval));
    const auto live = remoteClients.find(peer.remoteUuid);
    if (live == remoteClients.end())
        return;
    if (hasElapsed(peer.lastAttempt, interval)) {
        sendBurst(peer);
        live->lastAttempt = QDateTime::currentDateTime();
        live->tries++;
        Logger::logDebug(hostcalls::logCategory(),
                         QStringLiteral("Trying to connect to remote ") + peer.host.toString() + QLatin1Char(':') +
                             QString::number(peer.udpPortRemote, 10) + QLatin1Char('/') +
                             QString::number(peer.udpPort, 10) + QStringLiteral(" UUID: ") + peer.remoteUuid +
                             QStringLiteral(" Try: ") + QString::number(peer.tries, 10));
    }
    if (static_cast<quint32>(live->tries) > static_cast<quint32>(maxConnectTries)) {
        live->tries = 0;
        setConnectionStatus(ConnectionStatus::Disconnected, peer.remoteUuid);
        Logger::logWarning(hostcalls::logCategory(), QStringLiteral("Could not connect to remote users. Tried: ") +
                                                         QString::number(peer.tries, 10));
    }
}

/// 1600 connection requests: one of them meets the hole that the peer's own burst opens in its router.
void UDPHandler::sendBurst(const RemoteClient &peer)
{
    const QByteArray connectRequest = datagram::link(DatagramKind::ConnectRequest, uuid, peer.remoteUuid);
    const auto send = [&](quint16 port) {
        if (peer.host.isNull()) // the system would take it for the box itself
            return;
        const QByteArray wire = encryptMessage(connectRequest);
        udpSocket->writeDatagram(wire.constData(), wire.size(), peer.host, port);
        udpSocket->waitForBytesWritten(static_cast<int>(writeWait.count()));
    };
    if (peer.udpPort != noPort) {
        for (int repeat = 0; repeat < announcedPortRepeats; repeat++)
            send(shifted(peer.udpPort, 1));
    }
    if (peer.udpPortRemote != noPort) {
        for (int offset = sweepFirst; offset < sweepEnd; offset++)
            send(shifted(peer.udpPortRemote, offset));
    }
}
