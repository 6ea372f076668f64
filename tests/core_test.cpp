// Construction, settings, the order of a turn, registration with the rendezvous server.

#include "tests/support/relayfixture.h"

#include <QMetaMethod>

class CoreTest : public QObject
{
    Q_OBJECT

private slots:
    void slotsHaveTheirPlaces();
    void startsWithoutAWebServer();
    void settingsAreReadAsStored_data();
    void settingsAreReadAsStored();
    void changedPortMovesNoSocket();
    void registrationTellsFreshSettings();
    void failedLookupWaitsAnInterval();
};

void CoreTest::slotsHaveTheirPlaces()
{
    const QMetaObject &meta = UDPHandler::staticMetaObject;
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); i++)
        signatures += QString::fromLatin1(meta.method(i).methodSignature());
    QCOMPARE(signatures, QStringList({"readyRead()", "readyReadDiscover()", "readyReadTCP()", "tcpDisconnected()", "tcpError(QAbstractSocket::SocketError)"}));
    QCOMPARE(meta.method(meta.methodOffset() + 4).parameterNames(), QList<QByteArray>{"error"});
    QCOMPARE(meta.propertyCount() - meta.propertyOffset() + meta.enumeratorCount(), 0);
}

void CoreTest::startsWithoutAWebServer()
{
    logLines().clear();
    RelayFixture box;
    box.set("nat_udpport", "");
    box.start(false);
    QCOMPARE(logLines(), QStringList({"debug Load settings", "info NAT Traverse started. UDP listening on 0 & 5001"}));
    logLines().clear();
    const WebServer web;
    const UDPHandler second;
    QCOMPARE(logLines().last(), QStringLiteral("debug Connected to local TCP port 80"));
}

void CoreTest::settingsAreReadAsStored_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<int>("field");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("no number") << QByteArray("nat_udpport") << QByteArray("abc") << 0 << QVariant(0);
    QTest::newRow("missing") << QByteArray("nat_udpport") << QByteArray() << 0 << QVariant(0);
    QTest::newRow("low 16 bits") << QByteArray("nat_udpport") << QByteArray("70000") << 0 << QVariant(4464);
    QTest::newRow("all 16 bits") << QByteArray("nat_udpport") << QByteArray("65536") << 0 << QVariant(0);
    QTest::newRow("negative port") << QByteArray("nat_server_udpport") << QByteArray("-1") << 1 << QVariant(65535);
    QTest::newRow("negative count") << QByteArray("nat_maxconnecttries") << QByteArray("-1") << 2 << QVariant(-1);
    QTest::newRow("over 32 bits") << QByteArray("nat_maxconnecttries") << QByteArray("4294967297") << 2 << QVariant(0);
    QTest::newRow("IV ends at a zero") << QByteArray("aes_iv") << QByteArray("0102030400060708") << 3 << QVariant("01020304");
    QTest::newRow("IV begins with a zero") << QByteArray("aes_iv") << QByteArray("00112233445566778899aabbccddeeff") << 3 << QVariant("");
    QTest::newRow("key keeps its zeros") << QByteArray("aes_key") << QByteArray("00ff00") << 4 << QVariant("00ff00");
    QTest::newRow("odd digits") << QByteArray("aes_key") << QByteArray("1:2 3") << 4 << QVariant("0123");
}

void CoreTest::settingsAreReadAsStored()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, stored);
    QFETCH(int, field);
    QFETCH(QVariant, expected);
    RelayFixture box;
    box.start();
    box.set(name.constData(), stored);
    box.lastSettingsLoad() = RelayFixture::ago(19800);
    const QDateTime due = box.lastSettingsLoad().addSecs(20);
    QVERIFY(box.turnUntil([&] { return RelayFixture::logged("debug Load settings") > 0; }));
    QVERIFY(QDateTime::currentDateTime() > due);
    QCOMPARE(box.settings().at(field).toString(), expected.toString());
}

void CoreTest::changedPortMovesNoSocket()
{
    RelayFixture box;
    box.start();
    box.set("nat_udpport", "5005");
    box.lastSettingsLoad() = RelayFixture::ago(20100);
    box.turns(1);
    QCOMPARE(box.settings().at(0).toInt(), 5005);
    Peer peer;
    peer.send(peer.link(3));
    QCOMPARE(box.reply(peer), QByteArray("\x03") + boxUuid + peerUuid);
}

void CoreTest::registrationTellsFreshSettings()
{
    RelayFixture box;
    box.start();
    QUdpSocket server;
    server.bind(QHostAddress(QHostAddress::Any), 7000); // "localhost" may be either family
    box.set("nat_tcpport", "80");
    box.set("nat_udpport", "5000");
    box.set("uuid", "abc", "Hq4TbWn8LpRe2KsV");
    box.set("nat_server_update_interval", "10");
    box.lastServerUpdate() = RelayFixture::ago(10100); // due only by the interval that the same turn's reload brings
    box.lastSettingsLoad() = RelayFixture::ago(20100);
    box.turns(1);
    QByteArray registration(100, '\0');
    registration.resize(static_cast<int>(server.readDatagram(registration.data(), registration.size())));
    QCOMPARE(registration.toHex(), QByteArray("0100501388616263"));
    QCOMPARE(RelayFixture::logged("debug Sending UDP keep alive to server localhost:X. Result: 8"), 1);
    box.turns(3);
    QCOMPARE(RelayFixture::logged("debug Send UDP message to server"), 1);

    box.lastServerUpdate() = QDateTime(); // as after the start: at once
    box.turns(1);
    QCOMPARE(RelayFixture::logged("debug Send UDP message to server"), 2);
}

void CoreTest::failedLookupWaitsAnInterval()
{
    RelayFixture box;
    box.start();
    box.set("server_hostname", "no such name");
    box.lastServerUpdate() = RelayFixture::ago(300100);
    box.turns(3);
    QCOMPARE(RelayFixture::logged("info Hostname lookup to no such name failed. Make sure there is available internet at IXO! Error: "), 1);
    QCOMPARE(RelayFixture::logged("Sending UDP keep alive"), 0);
}

QTEST_GUILESS_MAIN(CoreTest)
#include "core_test.moc"
