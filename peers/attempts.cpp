// The way to the peers: bursts that open a path through both routers, and the end of peers that fell silent. Runs once
// a turn over the table; blocks for as long as a burst takes to be written.

#include "core/clock.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"
#include "protocol/datagramio.h"

#include <QUdpSocket>

using namespace std::chrono_literals;

namespace
{
constexpr int announcedPortRepeats = 800; // to the port next to the announced one, where many routers map next
constexpr int sweepFirst = -400;          // ports around the one seen from outside, for routers that count on
constexpr int sweepEnd = 400;             // not included
constexpr int noPort = -1;                // in the store: this run is not wanted
constexpr auto silenceLimit = 60s;

/// Port `offset` away from `port`, around the end of the port range.
quint16 shifted(int port, int offset)
{
    return static_cast<quint16>(static_cast<quint32>(port) + static_cast<quint32>(offset));
}
} // namespace

void UDPHandler::attendPeers()
{
    // Over the table itself: a copy of 10,000 peers would be made in every turn that changes one. No event is pumped
    // meanwhile, so that each peer is found as it was when the walk began, and none is added or removed.
    ElapsedTest isSilent(silenceLimit);
    for (RemoteClient &peer : remoteClients) {
        if (peer.isIn(ConnectionStatus::Connecting)) {
            attemptConnection(peer);
            isSilent.askAgain(); // those behind it are judged by the time after its burst
        } else if (peer.isIn(ConnectionStatus::Connected) && isSilent(peer.lastSeen)) {
            hostcalls::logDebug(QStringLiteral("Remote client was timeouted: ") + peer.host.toString());
            setConnectionStatus(ConnectionStatus::Disconnected, peer.remoteUuid);
            isSilent.askAgain(); // and after what the store took
        }
    }
}

void UDPHandler::attemptConnection(RemoteClient &peer)
{
    // Interval and limit count as unsigned: below zero means "hardly ever" and "without end".
    const std::chrono::milliseconds interval(static_cast<quint32>(connectionInterval));
    const QString triesBefore = QString::number(peer.tries, 10); // both lines tell the count without this burst
    if (hasElapsed(peer.lastAttempt, interval)) {
        sendBurst(peer);
        peer.lastAttempt = QDateTime::currentDateTime();
        peer.tries++;
        hostcalls::logDebug(QStringLiteral("Trying to connect to remote ") + peer.host.toString() + QLatin1Char(':') +
                            QString::number(peer.udpPortRemote, 10) + QLatin1Char('/') +
                            QString::number(peer.udpPort, 10) + QStringLiteral(" UUID: ") + peer.remoteUuid +
                            QStringLiteral(" Try: ") + triesBefore);
    }
    if (static_cast<quint32>(peer.tries) > static_cast<quint32>(maxConnectTries)) {
        peer.tries = 0;
        setConnectionStatus(ConnectionStatus::Disconnected, peer.remoteUuid);
        hostcalls::logWarning(QStringLiteral("Could not connect to remote users. Tried: ") + triesBefore);
    }
}

/// 1600 connection requests: one of them meets the hole that the peer's own burst opens in its router.
void UDPHandler::sendBurst(const RemoteClient &peer)
{
    if (peer.host.isNull()) // the system would take it for the box itself
        return;
    const QByteArray connectRequest = datagram::link(DatagramKind::ConnectRequest, uuid, peer.remoteUuid);
    const auto send = [&](quint16 port) {
        const QByteArray wire = encryptMessage(connectRequest);
        udpSocket->writeDatagram(wire.constData(), wire.size(), peer.host, port);
        udpSocket->waitForBytesWritten(datagram::writeWait);
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
