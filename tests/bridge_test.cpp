// The link to the web server and the cutting of its responses.

#include "tests/support/relayfixture.h"

#include <QTimer>

class BridgeTest : public QObject
{
    Q_OBJECT

private slots:
    void requestsAreWrittenOneAtATime();
    void responsesAreCutInto7000_data();
    void responsesAreCutInto7000();
    void chunkedResponseTakesSeveralReads();
    void bytesWithoutARequestAreDropped();
    void lostLinkKeepsTheRequest();
    void wrappedCountQueuesNothing();
    void contentLengthIsRead_data();
    void contentLengthIsRead();
};

void BridgeTest::requestsAreWrittenOneAtATime()
{
    WebServer web;
    RelayFixture box;
    box.start();
    Peer peer;
    peer.send(peer.request(0x101, 1, "GET /1"));
    peer.send(peer.request(0x202, 2, QByteArray("GET\0/2", 6)));
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /1"; }));
    box.turns(3);
    QCOMPARE(box.requests().size(), 2);
    QVERIFY(web.takeRequest().isEmpty());
    QCOMPARE(RelayFixture::logged("Connected to local TCP port"), 0); // the link of the start serves the first request

    web.answer("HTTP/1.1 200 OK\r\n\r\nfirst");
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == QByteArray("GET\0/2", 6); }));
    QCOMPARE(RelayFixture::logged("debug TCP disconnected at port 80"), 1);
    QCOMPARE(RelayFixture::logged("info Connected to local TCP port 80 (UDP Slot)"), 1);
    QVERIFY(logLines().contains(QStringLiteral("debug Write to TCP port: GET"))); // shown up to the zero byte
    QCOMPARE(box.currentRequestId(), 0x202);
}

void BridgeTest::responsesAreCutInto7000_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<QList<int>>("slices");
    QTest::newRow("empty") << 0 << QList<int>{0};
    QTest::newRow("one byte less") << 6999 << QList<int>{6999};
    QTest::newRow("exactly full") << 7000 << QList<int>{7000, 0};
    QTest::newRow("one byte more") << 7001 << QList<int>{7000, 1};
    QTest::newRow("three") << 15000 << QList<int>{7000, 7000, 1000};
}

void BridgeTest::responsesAreCutInto7000()
{
    QFETCH(int, length);
    QFETCH(QList<int>, slices);
    WebServer web;
    RelayFixture box;
    box.start();
    Peer peer;
    peer.send(peer.request(0x1234, 0x11, "GET /"));
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /"; }));
    peer.send(peer.request(0x1234, 0xbeef, "GET /")); // repeated: its socket id is the one that comes back
    QVERIFY(!box.reply(peer).isEmpty() && !box.reply(peer).isEmpty());
    const QByteArray response(length, 'r');
    if (length == 0)
        box->readyReadTCP(); // nothing to read is a response too
    else
        web.answer(response);
    for (int i = 0; i < slices.size(); i++) {
        const QByteArray packet = box.reply(peer);
        QCOMPARE(packet.left(13), "\x09\x12\x34\xbe\xef" + Peer::number(quint32(length), 4) + Peer::number(quint32(slices.size()), 2) + Peer::number(quint32(i), 2));
        QCOMPARE(packet.mid(13), boxUuid + peerUuid + response.mid(i * 7000, slices.at(i)));
        peer.send(peer.confirmation(0x1234, quint16(slices.size()), quint16(i), packet.mid(89)));
    }
    QVERIFY(box.turnUntil([&] { return std::all_of(box.packets().cbegin(), box.packets().cend(), [](const auto &packet) { return packet.confirmed; }); }));
    QCOMPARE(box.packets().size(), slices.size());
    QVERIFY(box.requests().isEmpty());
    QVERIFY(web.isClosed());
    const QString line = QStringLiteral("debug Packet size of %1 splitted into %2").arg(length).arg(slices.size());
    QCOMPARE(logLines().filter(line).size(), 1);
}

void BridgeTest::chunkedResponseTakesSeveralReads()
{
    WebServer web;
    RelayFixture box;
    box.start();
    Peer peer;
    peer.send(peer.request(5, 1, "GET /"));
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /"; }));
    // The header counts wherever it stands, the end only in the last seven bytes of a read, short reads searched whole.
    const QList<QByteArray> reads{"HTTP/1.1 200 OK\r\n\r\nTransfer-Encoding: chunked", QByteArray(7000, 'c'), "0\r\n\r\n behind", "0\r\n\r", "0\r\n\r\n"};
    int packets = 0;
    for (const QByteArray &bytes : reads) {
        QVERIFY(!web.isClosed());
        QCOMPARE(box.requests().size(), 1);
        web.answer(bytes);
        packets += bytes.size() / 7000 + 1;
        QVERIFY(box.turnUntil([&] { return box.packets().size() == packets; }));
        QCOMPARE(box.packets().last().msgId, 5);
        QCOMPARE(box.packets().last().data.mid(89), bytes.mid(7000 * (bytes.size() / 7000)));
        QCOMPARE(box.packets().last().data.mid(5, 4), Peer::number(quint32(bytes.size()), 4));
    }
    QVERIFY(box.requests().isEmpty());
    QVERIFY(box.turnUntil([&] { return web.isClosed(); }));
}

void BridgeTest::bytesWithoutARequestAreDropped()
{
    WebServer web;
    RelayFixture box;
    box.start();
    Peer peer;
    peer.send(peer.request(5, 1, "GET /"));
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /"; }));
    peer.send(peer.link(1)); // connects anew before the answer
    QVERIFY(box.turnUntil([&] { return box.requests().isEmpty(); }));
    web.answer("HTTP/1.1 200 OK\r\n\r\n");
    QVERIFY(box.turnUntil([] { return RelayFixture::logged("warning No TCP msg in buffer") == 1; }));
    web.answer("Transfer-Encoding: chunked"); // from here on in silence
    box.turns(3);
    web.answer("0\r\n\r\n");
    QVERIFY(box.turnUntil([] { return RelayFixture::logged("warning No TCP msg in buffer") == 2; }));
    QVERIFY(box.packets().isEmpty());
}

void BridgeTest::lostLinkKeepsTheRequest()
{
    auto web = std::make_unique<WebServer>();
    RelayFixture box;
    box.start();
    Peer peer;
    peer.send(peer.request(5, 1, "GET /"));
    peer.send(peer.request(6, 1, "GET /next"));
    QVERIFY(box.turnUntil([&] { return web->takeRequest() == "GET /"; }));
    web.reset();
    QVERIFY(box.turnUntil([] { return RelayFixture::logged("error TCP error: ") == 1; }));
    QVERIFY(RelayFixture::logged("debug TCP disconnected at port 80") >= 1);
    box.turns(3);
    QCOMPARE(box.requests().size(), 2); // not sent again, and nothing passes it
    QVERIFY(box.requests().constFirst()->forwarded);
    QCOMPARE(box.currentRequestId(), 5);
    QCOMPARE(RelayFixture::logged("Write to TCP port: GET /next"), 0);
}

void BridgeTest::wrappedCountQueuesNothing()
{
    RelayFixture box;
    box.start();
    box.cut(QByteArray(65535 * 7000, 'x'));
    QVERIFY(box.packets().isEmpty());
    QCOMPARE(RelayFixture::logged("debug Packet size of 458745000 splitted into 0"), 1);
}

void BridgeTest::contentLengthIsRead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("length");
    QTest::newRow("header") << "HTTP/1.1 200 OK\r\nContent-Length: 1234\r\n\r\n" << 1234;
    QTest::newRow("no response") << "Content-Length: 7\r\n" << 7;
    QTest::newRow("no line end") << "HTTP/1.1 200 OK\r\nContent-Length: 1234" << 0;
    QTest::newRow("other capitals") << "HTTP/1.1 200 OK\r\ncontent-length: 1234\r\n" << 0;
    QTest::newRow("other text") << "http" << -1;
}

void BridgeTest::contentLengthIsRead()
{
    QFETCH(QString, text);
    QFETCH(int, length);
    RelayFixture box;
    box.start();
    QCOMPARE(box.contentLength(text), length);
}

QTEST_GUILESS_MAIN(BridgeTest)
#include "bridge_test.moc"
