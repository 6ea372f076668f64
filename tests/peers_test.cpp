// The table of remote clients, local discovery, connection bursts and silent peers.

#include "tests/support/relayfixture.h"

#include <QRegularExpression>

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

/// Every UDP datagram that this namespace sends, in order and without loss, whether or not anybody listens.
class Capture
{
public:
    Capture()
    {
        const tpacket_req ring{4096, frames / 8, 512, frames};
        if (setsockopt(m_socket, SOL_PACKET, PACKET_RX_RING, &ring, sizeof ring) != 0)
            qFatal("no capture");
        m_ring = static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_socket, 0));
    }
    ~Capture()
    {
        munmap(m_ring, size);
        close(m_socket);
    }
    /// Destination port and payload of each.
    QList<std::pair<int, QByteArray>> datagrams() const
    {
        QList<std::pair<int, QByteArray>> found;
        for (int i = 0; i < frames; i++) {
            const char *frame = m_ring + i * 512;
            const auto *header = reinterpret_cast<const tpacket_hdr *>(frame);
            const QByteArray ip = QByteArray::fromRawData(frame + header->tp_net, static_cast<int>(header->tp_snaplen));
            if ((header->tp_status & TP_STATUS_USER) != 0 && ip.at(9) == IPPROTO_UDP)
                found.append({uchar(ip.at(22)) * 256 + uchar(ip.at(23)), QByteArray(ip.constData() + 28, ip.size() - 28)});
        }
        return found;
    }

private:
    static constexpr int frames = 8192; // each datagram is followed by the ICMP answer that nobody listens
    static constexpr size_t size = frames * 512;
    int m_socket = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
    char *m_ring = nullptr;
};

class PeersTest : public QObject
{
    Q_OBJECT

private slots:
    void tableIsReadOnceASecond();
    void wantedConnectionTakesTwoReads();
    void statusIsWrittenForKnownPeersOnly();
    void discoveryEntersAndRemovesPeers();
    void burstsCoverTheirPorts_data();
    void burstsCoverTheirPorts();
    void attemptsEndAfterTheLimit();
    void silentPeersTimeOut();
};

void PeersTest::tableIsReadOnceASecond()
{
    RelayFixture box;
    box.addPeer(peerUuid, 258, "192.0.2.1", 4000, 4001);
    box.start(false);
    QCOMPARE(box.clients().size(), 1);
    QCOMPARE(int(box.client(peerUuid).status), 2);
    QCOMPARE(box.client(peerUuid).udpPort, 4000);
    QCOMPARE(box.client(peerUuid).udpPortRemote, 0); // comes with the next read

    box.sql(QStringLiteral("DELETE FROM nat_traverse"));
    box.addPeer(otherUuid, 0, "no address", 0, 0);
    box.lastRemoteClientsLoad() = RelayFixture::ago(900);
    box.loadClients();
    QCOMPARE(box.clients().size(), 1);
    box.lastRemoteClientsLoad() = RelayFixture::ago(1100);
    box.client(peerUuid).tries = 5;
    box.loadClients();
    QCOMPARE(box.clients().size(), 2); // the row that has gone leaves its entry
    QVERIFY(box.client(otherUuid).host.isNull());

    box.sql(QStringLiteral("UPDATE nat_traverse SET remote_uuid = '%1', status = 1, remote_ip = '::1', udp_port_remote = 77").arg(QString(peerUuid)));
    box.lastRemoteClientsLoad() = QDateTime();
    box.loadClients();
    QCOMPARE(box.client(peerUuid).host.toString(), QStringLiteral("::1"));
    QCOMPARE(box.client(peerUuid).udpPortRemote, 77);
    QCOMPARE(box.client(peerUuid).tries, 5);
}

void PeersTest::wantedConnectionTakesTwoReads()
{
    logLines().clear();
    RelayFixture box;
    box.addPeer(peerUuid, 2);
    box.start(false);
    QCOMPARE(int(box.client(peerUuid).status), 2);
    QCOMPARE(box.storedStatus(peerUuid), 2);
    const QByteArray line = "info Remote client connected through UDP discover. Host: 127.0.0.1 UUID: " + peerUuid;
    QCOMPARE(RelayFixture::logged(line.constData()), 1);
    QCOMPARE(RelayFixture::logged("Set connection status"), 0);
    box.lastRemoteClientsLoad() = QDateTime();
    box.loadClients();
    QCOMPARE(int(box.client(peerUuid).status), 3);
    QCOMPARE(box.storedStatus(peerUuid), 3);
    QCOMPARE(RelayFixture::logged("info Set connection status for 127.0.0.1 to 3"), 1);
}

void PeersTest::statusIsWrittenForKnownPeersOnly()
{
    RelayFixture box;
    box.start();
    box.addPeer(strangerUuid, 0); // in the store, not yet in the table
    box.setStatus(ConnectionStatus::Connected, strangerUuid);
    QCOMPARE(box.storedStatus(strangerUuid), 0);
    QVERIFY(logLines().isEmpty());
    for (const auto &[status, tries] : {std::pair(ConnectionStatus::Connecting, 4), std::pair(ConnectionStatus::Connected, 0)}) {
        box.client(peerUuid).tries = 4;
        box.setStatus(status, peerUuid);
        QCOMPARE(box.client(peerUuid).tries, tries);
        QCOMPARE(box.storedStatus(peerUuid), int(status));
    }
}

void PeersTest::discoveryEntersAndRemovesPeers()
{
    RelayFixture box;
    box.start();
    Peer peer(strangerUuid);
    const QByteArray request = QByteArray("\x02\0", 2) + strangerUuid;
    const QByteArray line = "info Local client connected through UDP discover. Host: 127.0.0.1 UUID: " + strangerUuid;
    for (const QByteArray &ignored : {QByteArray("\x02{dddddddd"), QByteArray("\x02") + boxUuid + strangerUuid, QByteArray()}) {
        peer.sendPlain(ignored, 5001);
        box.turns(1);
    }
    QVERIFY(logLines().isEmpty());
    for (int time = 0; time < 2; time++) {
        peer.sendPlain(request, 5001);
        QCOMPARE(box.reply(peer, false), QByteArray("\x02\x1f\x98\x13\x88") + boxUuid + strangerUuid); // ports 8088 and 5000
        QCOMPARE(box.client(strangerUuid).udpPort, 5000);
        QCOMPARE(box.client(strangerUuid).tries, 0);
        QCOMPARE(RelayFixture::logged(line.constData()), 1); // a known peer is entered anew without a word
        QCOMPARE(RelayFixture::logged("info Set connection status for 127.0.0.1 to 1"), time + 1);
        box.client(strangerUuid).tries = 9;
    }
    peer.sendPlain("\x03" + strangerUuid, 5001);
    QVERIFY(box.turnUntil([&] { return !box.clients().contains(QString(strangerUuid)); }));
    peer.sendPlain("\x03" + strangerUuid, 5001); // unknown again: logged, and nothing else
    QVERIFY(box.turnUntil([&] { return RelayFixture::logged(line.constData()) == 2; }));
    QVERIFY(peer.receiveRaw().isNull());
    QVERIFY(!box.clients().contains(QString(strangerUuid)));
}

void PeersTest::burstsCoverTheirPorts_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<int>("portRemote");
    QTest::newRow("both runs") << 4000 << 100; // the sweep goes around the end of the port range
    QTest::newRow("no announced port") << -1 << 30000;
    QTest::newRow("no port from outside") << 65534 << -1;
}

void PeersTest::burstsCoverTheirPorts()
{
    QFETCH(int, port);
    QFETCH(int, portRemote);
    RelayFixture box;
    box.start();
    const Capture capture;
    box.client(peerUuid).status = 3;
    box.client(peerUuid).udpPort = port;
    box.client(peerUuid).udpPortRemote = portRemote;
    box.client(otherUuid).status = 2; // left alone
    box.turns(1);

    QList<int> expected;
    for (int i = 0; i < 800 && port != -1; i++)
        expected += (port + 1) % 65536;
    for (int i = -400; i < 400 && portRemote != -1; i++)
        expected += (portRemote + i + 65536) % 65536;
    expected.removeAll(0); // the kernel sends nothing there
    QList<int> ports;
    for (const auto &[to, data] : capture.datagrams()) {
        ports += to;
        QCOMPARE(data, Peer::crypt(QByteArray("\x01") + boxUuid + peerUuid, true));
    }
    QCOMPARE(ports, expected);
    const QString line = QStringLiteral("debug Trying to connect to remote 127.0.0.1:%1/%2 UUID: %3 Try: 0").arg(portRemote).arg(port).arg(QString(peerUuid));
    QCOMPARE(logLines().filter(line).size(), 1);
}

void PeersTest::attemptsEndAfterTheLimit()
{
    RelayFixture box;
    box.start();
    box.client(peerUuid).status = 3;
    for (int burst = 0; burst < 3; burst++) { // one more than the limit of 2
        QCOMPARE(int(box.client(peerUuid).status), 3);
        box.lastRemoteClientsLoad() = RelayFixture::ago(0);
        box.client(peerUuid).lastAttempt = burst == 0 ? QDateTime() : RelayFixture::ago(60100);
        box.turns(2); // the second is too early for another burst
        QCOMPARE(RelayFixture::logged(" Try: "), burst + 1);
    }
    QVERIFY(!logLines().filter(QRegularExpression(QStringLiteral(" Try: 2$"))).isEmpty());
    QCOMPARE(RelayFixture::logged("warning Could not connect to remote users. Tried: 2"), 1);
    QCOMPARE(box.storedStatus(peerUuid), 0);
    QCOMPARE(box.client(peerUuid).tries, 0);
}

void PeersTest::silentPeersTimeOut()
{
    RelayFixture box;
    box.start();
    box.addPeer(strangerUuid, 0);
    box.lastRemoteClientsLoad() = QDateTime();
    box.loadClients();
    for (const QByteArray &uuid : {peerUuid, otherUuid, strangerUuid})
        box.setStatus(ConnectionStatus::Connected, uuid);
    box.client(peerUuid).lastSeen = RelayFixture::ago(59000);
    box.client(otherUuid).lastSeen = RelayFixture::ago(60100);
    box.turns(1); // the stranger was never heard of, as a peer just discovered
    QCOMPARE(box.storedStatus(peerUuid), 1);
    QCOMPARE(box.storedStatus(otherUuid), 0);
    QCOMPARE(box.storedStatus(strangerUuid), 0);
    QCOMPARE(RelayFixture::logged("debug Remote client was timeouted: 127.0.0.1"), 2);
}

QTEST_GUILESS_MAIN(PeersTest)
#include "peers_test.moc"
