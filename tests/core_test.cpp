// Construction, settings, the order of a turn, registration with the rendezvous server.

#include "core/clock.h"
#include "tests/support/box.h"

#include <QMetaMethod>
#include <QNetworkDatagram>
#include <QThread>

#include <tuple>

class CoreTest : public QObject
{
    Q_OBJECT

private slots:
    void slotsHaveTheirPlaces()
    {
        const QMetaObject &meta = UDPHandler::staticMetaObject;
        QStringList signatures;
        for (int i = meta.methodOffset(); i < meta.methodCount(); i++)
            signatures += meta.method(i).methodSignature();
        QCOMPARE(signatures, QStringList({"readyRead()", "readyReadDiscover()", "readyReadTCP()", "tcpDisconnected()",
                                          "tcpError(QAbstractSocket::SocketError)"}));
        QCOMPARE(meta.method(meta.methodOffset() + 4).parameterNames(), QList<QByteArray>{"error"});
        QCOMPARE(meta.propertyCount() - meta.propertyOffset() + meta.enumeratorCount(), 0);
    }

    void startsWithoutAWebServer()
    {
        Box box;
        box.set({{"nat_udpport", ""}});
        logLines().clear();
        const UDPHandler first;
        QCOMPARE(logLines(), QStringList({"debug Load settings", "info NAT Traverse started. UDP listening on 0 & 5001"}));
        const WebServer web;
        const UDPHandler second;
        QCOMPARE(logLines().last(), "debug Connected to local TCP port 80");
        QVERIFY(second.udpSocket->localPort() != 0 && second.udpSocket->localAddress() == QHostAddress(QHostAddress::Any));
        QVERIFY(second.discoverSocket->localAddress() == QHostAddress(QHostAddress::AnyIPv4));
        QVERIFY(QUdpSocket().bind(QHostAddress(QHostAddress::AnyIPv4), 5001, QUdpSocket::ShareAddress)); // others may too
    }

    void companionSharesThePort()
    {
        StartedBox box;
        Peer server(boxUuid, "127.0.0.1", 7000);
        QUdpSocket companion;
        QVERIFY(companion.bind(QHostAddress(QHostAddress::AnyIPv4), 5000, QUdpSocket::ShareAddress));
        companion.connectToHost(server.local, 7000); // at once: it takes no other's
        QCOMPARE(companion.write("from"), 4);
        QVERIFY(server.receive() == "from" && server.senderPort == 5000);
        server.sendPlain("call");
        Peer peer;
        for (int i = 0; i < 100; i++) {
            peer.send(peer.link(3));
            QCOMPARE(box.reply(peer), "\x03" + boxUuid + peerUuid);
        }
        QVERIFY(companion.receiveDatagram().data() == "call" && !companion.hasPendingDatagrams());
    }

    void turnHasItsOrder()
    {
        const WebServer web;
        StartedBox box({peerUuid, otherUuid, strangerUuid});
        Peer peer(strangerUuid);
        box.sql("UPDATE nat_traverse SET status = 2 WHERE remote_uuid = '" + peerUuid + "'"); // to connect to, in this very turn
        box.client(otherUuid).lastSeen = ago(60001);
        box.relay->setConnectionStatus(ConnectionStatus::Connected, otherUuid); // which falls silent
        box.take(peer, peer.request(1, 1, "GET /"));
        box.queue(peer, 2, 0, "x").tries = 49; // the last pass of a packet
        box.relay->lastRemoteClientsLoad = box.relay->lastServerUpdate = QDateTime();
        box.relay->lastSettingsLoad = ago(20001);
        peer.send(peer.link(3));
        logLines().clear();
        QElapsedTimer timer;
        timer.start();
        box.turns(1);
        QStringList order;
        for (const QString &line : qAsConst(logLines()))
            order += line.section(' ', 1, 2) + ' ' + line.section(' ', -1);
        QCOMPARE(order, QStringList({"Keep alive ::ffff:127.0.0.1", "Set connection 3", "Trying to 0", "Remote client 127.0.0.1",
                                     "Set connection 0", "Write to /", "Set connection 0", "Load settings settings", "Send UDP server",
                                     "Sending UDP 43"}));
        qint64 fastest = 1000;
        for (int turn = 0; turn < 20; turn++) {
            timer.start();
            box.turns(1);
            fastest = std::min(fastest, timer.elapsed());
        }
        QVERIFY2(fastest >= 10 && fastest < 50, QByteArray::number(fastest)); // a pause of 10 ms
    }

    void timeStampsAreThoseOfTheEnd()
    {
        StartedBox box;
        box.addPeer(strangerUuid, 2); // a new one is worth a line
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &message) {
            QThread::msleep(20); // every line is told before its duty has ended
            recordLog(type, context, message);
        });
        for (const auto &[duty, stamp] : {std::pair(&UDPHandler::registerWithServer, &UDPHandler::lastServerUpdate),
                                          std::pair(&UDPHandler::getRemoteClients, &UDPHandler::lastRemoteClientsLoad),
                                          std::pair(&UDPHandler::loadSettings, &UDPHandler::lastSettingsLoad)}) {
            if (duty == &UDPHandler::loadSettings)
                qputenv("BOX_DATABASE", "sqlite:/no/such"); // the first read is worth a line then
            logLines().clear();
            (*box.relay).*stamp = QDateTime();
            const QDateTime begin = QDateTime::currentDateTime();
            ((*box.relay).*duty)();
            QVERIFY(!logLines().isEmpty() && (*box.relay).*stamp >= begin.addMSecs(20LL * logLines().size()));
        }
    }

    void periodsRunOutStrictlyAfterTheirEnd()
    {
        bool isSameMillisecond = false;
        for (int i = 0; i < 1000 && !isSameMillisecond; i++) {
            const QDateTime now = QDateTime::currentDateTime();
            const bool isOut =
                hasElapsed(now.addSecs(-60), std::chrono::seconds(60)) || ElapsedTest(std::chrono::seconds(60))(now.addSecs(-60));
            isSameMillisecond = now == QDateTime::currentDateTime();
            QVERIFY(!isOut || !isSameMillisecond);
        }
        QVERIFY(isSameMillisecond && hasElapsed(ago(60001), std::chrono::seconds(60)));
    }

    void settingsAreReadAsStored()
    {
        const auto number = [](auto field) { return [field](const UDPHandler &relay) { return QByteArray::number(relay.*field); }; };
        const auto bytes = [](auto field) { return [field](const UDPHandler &relay) { return (relay.*field).toHex(); }; };
        const QList<std::tuple<QByteArray, QByteArray, std::function<QByteArray(const UDPHandler &)>, QByteArray>> rows{
            {"nat_udpport", "0x10", number(&UDPHandler::udpPort), "0"},
            {"nat_udpport", "010", number(&UDPHandler::udpPort), "10"},
            {"nat_tcpport", "70000", number(&UDPHandler::tcpPort), "4464"},
            {"nat_server_udpport", "-1", number(&UDPHandler::serverUdpPort), "65535"},
            {"nat_udpportdiscover", "", number(&UDPHandler::udpPortDiscover), "0"},
            {"nat_maxconnecttries", "-1", number(&UDPHandler::maxConnectTries), "-1"},
            {"nat_connectioninterval", "4294967297", number(&UDPHandler::connectionInterval), "0"},
            {"aes_iv", "0102030400060708", bytes(&UDPHandler::aesIv), "01020304"}, // ends at its zero
            {"aes_iv", "00112233445566778899aabbccddeeff", bytes(&UDPHandler::aesIv), ""},
            {"aes_key", "00ff01:2 3", bytes(&UDPHandler::aesKey), "00ff0123"}}; // keeps its zeros
        for (const auto &[name, stored, field, expected] : rows) {
            Box box;
            box.start().set({{name, stored}});
            box.relay->lastSettingsLoad = ago(19900);
            const QDateTime due = box.relay->lastSettingsLoad.addSecs(20);
            QVERIFY(box.turnUntil([] { return logged("debug Load settings") > 0; }));
            QVERIFY(QDateTime::currentDateTime() > due);
            QVERIFY2(field(*box.relay) == expected, name + ' ' + field(*box.relay));
        }
    }

    void registrationTellsFreshSettings()
    {
        StartedBox box;
        Peer server(boxUuid, "127.0.0.1", 7000);
        Peer server6(boxUuid, "::1", 7000);
        box.set({{"nat_tcpport", "80"}, {"nat_udpport", "5005"}, {"uuid", "abc"}, {"nat_server_update_interval", "10"}});
        box.relay->lastServerUpdate = ago(10100); // due only by the interval that the same turn's reload brings
        box.relay->lastSettingsLoad = ago(20100);
        box.turns(1);
        QVERIFY(server.receive().toHex() == "010050138d616263" && server.senderPort == 5000); // the new port is told, the old one used
        box.turns(2);
        QCOMPARE(logged("debug Sending UDP keep alive to server rendezvous.example:X. Result: 8"), 1);
        QCOMPARE(logged("debug Send UDP message to server"), 1);

        box.set({{"server_hostname", "rendezvous6.example"}}); // read and looked up afresh; the first address counts
        box.relay->lastServerUpdate = ago(10100);
        box.turns(1);
        QVERIFY(server.receive().isNull() && !server6.receive().isNull());

        box.set({{"server_hostname", "no such name"}}); // costs one line an interval, and nothing is sent
        box.relay->lastServerUpdate = QDateTime();      // as after the start: at once
        box.turns(3);
        QCOMPARE(logged("info Hostname lookup to no such name failed. Make sure there is available internet at IXO! Error: "), 1);
        QVERIFY(server.receive().isNull());

        box.relay->serverUdpPort = 0; // which the kernel refuses
        box.set({{"server_hostname", "rendezvous.example"}});
        for (const int interval : {0, -1}) { // a pass in every turn; two turns may share a millisecond, not an interval
            box.relay->serverUpdateInterval = interval;
            box.turns(3);
        }
        QCOMPARE(logged(". Result: -1"), 6);
    }
};

QTEST_GUILESS_MAIN(CoreTest)
#include "core_test.moc"
