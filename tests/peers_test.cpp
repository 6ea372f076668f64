// The table of remote clients, local discovery, connection bursts and silent peers.

#include "tests/support/box.h"

#include <QThread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{
/// Destination port and payload of every datagram that this process has sent, whether or not anybody listens.
QList<std::pair<int, QByteArray>> &sentDatagrams()
{
    static QList<std::pair<int, QByteArray>> datagrams;
    return datagrams;
}
} // namespace

/// In the place of the system library's.
extern "C" ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    const auto sent = syscall(SYS_sendmsg, fd, message, flags);
    const auto *to = static_cast<const sockaddr_in *>(message->msg_name); // an IPv6 address has its port there too
    if (sent >= 0 && to != nullptr)
        sentDatagrams().append({ntohs(to->sin_port), QByteArray(static_cast<const char *>(message->msg_iov->iov_base), int(sent))});
    return sent;
}

class PeersTest : public QObject
{
    Q_OBJECT

private slots:
    void tableIsReadOnceASecond()
    {
        Box box;
        box.addPeer(peerUuid, 257, "192.0.2.1");
        box.start({});
        QVERIFY(box.client().status == 1 && box.client().udpPort == 4000 && box.client().udpPortRemote == 0 &&
                box.client().lastSeen.isNull());
        box.client().tries = 5;
        box.client().lastSeen = box.client().lastAttempt = ago(5000);
        box.sql("DELETE FROM nat_traverse");
        box.addPeer(otherUuid, 0, "no address");
        box.relay->lastRemoteClientsLoad = ago(950);
        box.relay->getRemoteClients();
        QCOMPARE(box.relay->remoteClients.size(), 1);
        box.relay->lastRemoteClientsLoad = ago(1001);
        box.relay->getRemoteClients();
        QCOMPARE(box.relay->remoteClients.size(), 2); // the row that has gone leaves its entry
        QVERIFY(box.client(otherUuid).host.isNull());
        box.addPeer(peerUuid, 1, "::1");
        box.loadClients();
        QVERIFY(box.client().status == 1 && box.client().udpPort == 4000 && box.client().udpPortRemote == 4001);
        box.sql("UPDATE nat_traverse SET udp_port = '0x10', udp_port_remote = '0x11', status = '0x12'"); // no decimal numbers
        box.loadClients();
        QCOMPARE(box.client().host.toString(), "::1");
        QVERIFY(box.client().status == 0 && box.client().udpPort == 0 && box.client().udpPortRemote == 0);
        QVERIFY(box.client().tries == 5 && box.client().lastSeen.isValid() && box.client().lastAttempt.isValid());
        box.sql("ALTER TABLE nat_traverse RENAME TO gone");
        box.loadClients();
        QCOMPARE(box.relay->remoteClients.size(), 2); // a failed read leaves the table
    }

    void wantedConnectionTakesTwoReads()
    {
        Box box;
        box.start({}).addPeer(peerUuid, 258); // the low byte counts
        box.loadClients();                    // only registers the peer
        QVERIFY(box.client().status == 2 && box.storedStatus(peerUuid) == 258);
        box.loadClients();
        QVERIFY(box.client().status == 3 && box.storedStatus(peerUuid) == 3);
        QCOMPARE(logLines(), QStringList({"info Remote client connected through UDP discover. Host: 127.0.0.1 UUID: " + peerUuid,
                                          "info Set connection status for 127.0.0.1 to 3"}));
    }

    void statusIsWrittenForKnownPeersOnly()
    {
        Box box;
        box.start().addPeer(strangerUuid); // in the store, not yet in the table
        box.relay->setConnectionStatus(ConnectionStatus::Connected, strangerUuid);
        QCOMPARE(box.storedStatus(strangerUuid), 0);
        QVERIFY(logLines().isEmpty());
        box.client().tries = 4;
        box.client().lastAttempt = ago(0);
        for (const int status : {3, 0, 2, 1}) {
            box.client().status = quint8(status); // also what stands there already is written
            box.relay->setConnectionStatus(ConnectionStatus(status), peerUuid);
            QVERIFY(box.client().tries == (status == 1 ? 0 : 4) && box.client().lastAttempt.isValid());
            QCOMPARE(box.storedStatus(peerUuid), status);
        }
        box.sql("ALTER TABLE nat_traverse RENAME TO gone"); // a failed write changes nothing of that
        box.relay->setConnectionStatus(ConnectionStatus::Connecting, peerUuid);
        QVERIFY(box.client().status == 3 && logLines().last() == "info Set connection status for 127.0.0.1 to 3");
    }

    void discoveryEntersAndRemovesPeers()
    {
        StartedBox box;
        Peer peer(strangerUuid, "192.0.2.1"); // another address than the one it writes to
        const auto &clients = box.relay->remoteClients;
        const QString line = "info Local client connected through UDP discover. Host: 192.0.2.1 UUID: " + strangerUuid;
        for (const QByteArray &ignored : {QByteArray("\x02{dddddddd"), "\x02" + boxUuid + strangerUuid, QByteArray()}) {
            peer.sendPlain(ignored, 5001);
            box.turns(1);
        }
        QVERIFY(logLines().isEmpty());
        for (int time = 1; time <= 2; time++) {
            box.relay->udpPort = 5005; // the setting is told, whatever port is bound
            peer.sendPlain(QByteArray("\x02\0", 2) + strangerUuid, 5001);
            QVERIFY(box.turnUntil([&] { return peer.socket.hasPendingDatagrams(); }));
            QCOMPARE(peer.receive(), "\x02\x1f\x98\x13\x8d" + boxUuid + strangerUuid); // ports 8088 and 5005, in plain
            QCOMPARE(box.client(strangerUuid).udpPort, 5005);
            QVERIFY(box.client(strangerUuid).lastAttempt.isNull() && box.client(strangerUuid).udpPortRemote == 0);
            QCOMPARE(logged("debug Remote client was timeouted: 192.0.2.1"), time); // never heard on the main socket
            QCOMPARE(logged(line), 1);                                              // a known peer is entered anew without a word
            QCOMPARE(logged("info Set connection status for 192.0.2.1 to 1"), time);
            QVERIFY(box.client(strangerUuid).host == QHostAddress("192.0.2.1") && peer.senderPort == 5001);
            box.client(strangerUuid).udpPortRemote = 7;
            box.client(strangerUuid).lastSeen = box.client(strangerUuid).lastAttempt = ago(0); // starts afresh with the repeated request
        }
        peer.sendPlain("\x03" + strangerUuid, 5001);
        QVERIFY(box.turnUntil([&] { return !clients.contains(strangerUuid); }));
        peer.sendPlain("\x01" + strangerUuid, 5001); // unknown again: logged, and nothing else
        QVERIFY(box.turnUntil([&] { return logged(line) == 2; }));
        QVERIFY(peer.receive().isNull() && !clients.contains(strangerUuid));
    }

    void burstsCoverTheirPorts()
    {
        bool isStampedAtItsEnd = false; // what the turn does behind a burst is shorter, unless something else interferes
        for (const auto &[port, portRemote] : {std::pair(4000, 100), std::pair(-1, 30000), std::pair(65534, -1)}) {
            StartedBox box;
            box.client(otherUuid).status = 2; // left alone
            box.client().status = 3;
            box.client().udpPort = port;
            box.client().udpPortRemote = portRemote;
            const QDateTime begin = ago(0);
            sentDatagrams().clear();
            box.turns(1);
            const QDateTime stamp = box.client().lastAttempt.addMSecs(-10); // without the turn's pause
            isStampedAtItsEnd |= begin.msecsTo(stamp) > stamp.msecsTo(ago(10));
            const QByteArray datagram = Peer::crypt("\x01" + boxUuid + peerUuid, true);
            QList<std::pair<int, QByteArray>> expected;
            for (int i = 0; i < 800 && port != -1; i++)
                expected.append({port + 1, datagram});
            for (int i = -400; i < 400 && portRemote != -1; i++)
                expected.append({(portRemote + i + 65536) % 65536, datagram});
            expected.removeAll({0, datagram}); // the system sends nothing there
            QCOMPARE(sentDatagrams(), expected);
            const QString line = QString("debug Trying to connect to remote 127.0.0.1:%1/%2 UUID: ").arg(portRemote).arg(port);
            QCOMPARE(logLines().last(), line + peerUuid + " Try: 0");
        }
        QVERIFY(isStampedAtItsEnd);
    }

    void attemptsEndAfterTheLimit()
    {
        StartedBox box;
        box.client().status = 3;
        for (int burst = 0; burst < 3; burst++) { // one more than the limit of 2
            QCOMPARE(int(box.client().status), 3);
            box.client().lastAttempt = burst == 0 ? QDateTime() : ago(60001);
            box.relay->lastRemoteClientsLoad = ago(0);
            box.turns(2); // the second is too early for another burst
            QCOMPARE(logged(" Try: "), burst + 1);
        }
        QCOMPARE(logged(" Try: 2"), 1);
        QCOMPARE(logLines().last(), "warning Could not connect to remote users. Tried: 2");
        QCOMPARE(box.storedStatus(peerUuid), 0);
        QVERIFY(box.client().tries == 0 && box.client().lastAttempt.isValid());
        const auto turnAfter = [&box](const QDateTime &lastAttempt) {
            box.client().status = 3;
            box.client().lastAttempt = lastAttempt;
            box.turns(1);
        };
        box.client().tries = 3;
        turnAfter(ago(0)); // given up also in a pass without a burst
        QVERIFY(logged(" Try: ") == 3 && logLines().last() == "warning Could not connect to remote users. Tried: 3");
        box.relay->maxConnectTries = box.relay->connectionInterval = -1; // unsigned: without end, and hardly ever
        turnAfter(ago(1000000));
        QCOMPARE(logged(" Try: "), 3);
        Peer self(peerUuid, "::1", 4001); // where the system sends what has no address
        box.client().host.clear();        // an address that could not be read: the burst counts, and nothing is sent
        turnAfter(QDateTime());
        QVERIFY(logged(" Try: 0") == 2 && self.receive().isNull() && box.client().status == 3);
    }

    void silentPeersTimeOut()
    {
        StartedBox box;
        box.client().status = box.client(otherUuid).status = 1;
        box.client().lastSeen = ago(59800);
        box.client(otherUuid).lastSeen = ago(60001);
        box.relay->attendPeers();
        QVERIFY(box.client().status == 1 && box.client(otherUuid).status == 0);
        QCOMPARE(logLines(),
                 QStringList({"debug Remote client was timeouted: 127.0.0.1", "info Set connection status for 127.0.0.1 to 0"}));
    }

    void silenceCountsUpToThePeersTurn()
    {
        for (const quint8 status : {quint8(3), quint8(1)}) { // the peer before takes its time: by its burst, or by its end
            bool isSilentMeanwhile = false;
            for (int attempt = 0; attempt < 20 && !isSilentMeanwhile; attempt++) {
                StartedBox box({peerUuid, otherUuid, strangerUuid});
                qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) {
                    QThread::msleep(message.contains("timeouted") ? 10 : 0);
                });
                box.client(otherUuid).status = status;
                box.client().status = box.client(strangerUuid).status = 1;
                box.client().lastSeen = ago(0);
                const QDateTime end = ago(-3); // of the last one's patience
                box.client(strangerUuid).lastSeen = end.addSecs(-60);
                const QDateTime begin = ago(0);
                box.relay->attendPeers();
                const QDateTime turn = status == 3 ? box.client(otherUuid).lastAttempt : begin.addMSecs(10);
                isSilentMeanwhile = begin < end && end < turn;
                QVERIFY(turn <= end || box.client(strangerUuid).status == 0);
            }
            QVERIFY(isSilentMeanwhile);
        }
    }
};

QTEST_GUILESS_MAIN(PeersTest)
#include "peers_test.moc"
