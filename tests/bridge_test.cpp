// The link to the web server and the cutting of its responses.

#include "tests/support/box.h"

class BridgeTest : public QObject
{
    Q_OBJECT

    /// Brings the web server the peer's request through the relay.
    static bool deliver(const Box &box, WebServer &web, Peer &peer, const QByteArray &request)
    {
        peer.send(request);
        return box.turnUntil([&] { return web.takeRequest() == request.mid(81); });
    }

private slots:
    void requestsAreWrittenOneAtATime()
    {
        WebServer web;
        StartedBox box;
        Peer peer;
        box.take(peer, peer.request(0x101, 1, "GET /1"));
        box.take(peer, peer.request(0x202, 2, QByteArray("GET\0/2", 6)));
        QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /1"; }));
        box.turns(3);
        QVERIFY(box.relay->tcpQueue.size() == 2 && web.takeRequest().isEmpty());
        QCOMPARE(logged("Connected to local TCP port"), 0); // the link of the start serves the first request
        web.answer("HTTP/1.1 200 OK\r\n\r\nfirst");
        QVERIFY(box.turnUntil([&] { return web.takeRequest() == QByteArray("GET\0/2", 6); }));
        QCOMPARE(logged("debug TCP disconnected at port 80"), 1);
        QCOMPARE(logged("info Connected to local TCP port 80 (UDP Slot)"), 1);
        QVERIFY(logLines().contains("debug Write to TCP port: GET")); // shown up to the zero byte
        QCOMPARE(box.relay->currentRequestId, 0x202);
    }

    void responsesAreCutInto7000()
    {
        const QList<std::pair<int, QList<int>>> rows{
            {0, {0}}, {6999, {6999}}, {7000, {7000, 0}}, {7001, {7000, 1}}, {15000, {7000, 7000, 1000}}};
        for (const auto &[length, slices] : rows) {
            WebServer web;
            StartedBox box;
            Peer peer;
            QVERIFY(deliver(box, web, peer, peer.request(0x1234, 0x11, "GET /")));
            Peer other(otherUuid);
            box.take(other, other.request(1, 1, ""));              // an empty one waits; the answer is for the first in the queue
            box.take(peer, peer.request(0x1234, 0xbeef, "GET /")); // repeated: its socket id is the one that comes back
            for (int receipt = 0; receipt < 2; receipt++)
                QCOMPARE(box.reply(peer).at(0), '\x0a');
            box.client().host = QHostAddress("192.0.2.9"); // answered is where the request came from, not where its peer is now
            box.relay->currentRequestId = 0x4321;          // under the id that was written last
            const QByteArray response(length, 'r');
            if (length == 0)
                box.relay->readyReadTCP(); // nothing to read is a response too
            else
                web.answer(response);
            for (int i = 0; i < slices.size(); i++) {
                const QByteArray packet = box.reply(peer);
                QCOMPARE(packet, "\x09\x43\x21\xbe\xef" + wire(quint32(length), 4) + wire(quint32(slices.size()), 2) + wire(quint32(i), 2) +
                                     boxUuid + peerUuid + response.mid(i * 7000, slices.at(i)));
                box.take(peer, peer.confirmation(0x4321, 0, quint32(i), packet.mid(89)));
                QVERIFY(box.relay->udpQueue.at(i).confirmed);
                QCOMPARE(box.relay->udpQueue.at(i).checksum, Peer::checksum(packet.mid(89)));
            }
            QCOMPARE(box.relay->udpQueue.size(), slices.size());
            QVERIFY(box.turnUntil([&] { return box.relay->tcpQueue.first()->forwarded; })); // nothing written is written too
            QVERIFY(box.relay->tcpQueue.size() == 1 && box.relay->currentRequestId == 1);
            QCOMPARE(logged(QString("debug Packet size of %1 splitted into %2").arg(length).arg(slices.size())), 1);
        }
        Box box;
        box.start().relay->queueResponse(QByteArray(65535 * 7000, 'x'), {}); // the count has 16 bits
        QVERIFY(box.relay->udpQueue.isEmpty());
    }

    void chunkedResponseTakesSeveralReads()
    {
        WebServer web;
        StartedBox box;
        Peer peer;
        const auto &packets = box.relay->udpQueue;
        // In one read it may end as well, and in other letters it is none.
        for (const QByteArray &bytes : {QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
                                        QByteArray("HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n1\r\n")}) {
            QVERIFY(deliver(box, web, peer, peer.request(quint32(bytes.size()), 1, "GET /")));
            web.answer(bytes);
            QVERIFY(box.turnUntil([&] { return box.relay->tcpQueue.isEmpty(); }));
        }
        QVERIFY(deliver(box, web, peer, peer.request(5, 1, "GET /")));
        int count = packets.size();
        // The header counts wherever it stands, the end only in the last seven bytes of a read; short reads count whole.
        for (const QByteArray &bytes : {QByteArray("HTTP/1.1 200 OK\r\n\r\nTransfer-Encoding: chunked"), QByteArray(7000, 'c'),
                                        QByteArray("0\r\n\r\nabc"), QByteArray("0\r\n\r"), QByteArray("c0\r\n\r\nab")}) {
            QVERIFY(!web.isClosed() && box.relay->tcpQueue.size() == 1);
            web.answer(bytes);
            const int last = bytes.size() / 7000;
            count += last + 1;
            QVERIFY(box.turnUntil([&] { return packets.size() == count; }));
            QVERIFY(packets.last().msgId == 5 && packets.last().package == last);
            QCOMPARE(packets.last().data.mid(5, 4) + packets.last().data.mid(89), wire(quint32(bytes.size()), 4) + bytes.mid(7000 * last));
        }
        QVERIFY(box.relay->tcpQueue.isEmpty() && box.turnUntil([&] { return web.isClosed(); }));
    }

    void bytesWithoutARequestAreDropped()
    {
        WebServer web;
        StartedBox box;
        Peer peer;
        QVERIFY(deliver(box, web, peer, peer.request(5, 1, "GET /")));
        box.take(peer, peer.link(1)); // connects anew before the answer
        QVERIFY(box.relay->tcpQueue.isEmpty());
        web.answer("HTTP/1.1 200 OK\r\n\r\n");
        QVERIFY(box.turnUntil([] { return logged("warning No TCP msg in buffer") == 1; }));
        web.answer("Transfer-Encoding: chunked"); // from here on in silence
        QVERIFY(box.turnUntil([] { return UDPHandler::chunkedTcpTransfer; }));
        web.answer("0\r\n\r\n");
        QVERIFY(box.turnUntil([] { return !UDPHandler::chunkedTcpTransfer; }));
        QVERIFY(logged("warning No TCP msg in buffer") == 2 && box.relay->udpQueue.isEmpty());
    }

    void lostLinkKeepsTheRequest()
    {
        auto web = std::make_unique<WebServer>();
        StartedBox box;
        Peer peer;
        QVERIFY(deliver(box, *web, peer, peer.request(5, 1, "GET /")));
        box.take(peer, peer.request(6, 1, "GET /next"));
        web.reset();
        QVERIFY(box.turnUntil([] { return logged("error TCP error: ") == 1 && logged("debug TCP disconnected at port 80") > 0; }));
        box.turns(3);
        QCOMPARE(box.relay->tcpQueue.size(), 2); // not sent again, and nothing passes it
        QVERIFY(box.relay->tcpQueue.first()->forwarded && !box.relay->tcpQueue.last()->forwarded);
        QCOMPARE(box.relay->currentRequestId, 5);

        web = std::make_unique<WebServer>();
        box.relay->tcpQueue.first()->forwarded = false;
        QVERIFY(box.turnUntil([&] { return !web->takeRequest().isEmpty(); }));
        UDPHandler::chunkedTcpTransfer = true;
        box.relay->tcpError(QAbstractSocket::NetworkError); // any error ends the link, and none the chunks
        QVERIFY(box.turnUntil([&] { return web->isClosed(); }) && UDPHandler::chunkedTcpTransfer);
    }

    void contentLengthIsRead()
    {
        StartedBox box;
        for (const auto &[text, length] : {std::pair("HTTP Content-Length: 1234\r\n", 1234), std::pair("HTTP Content-Length: 1", 0),
                                           std::pair("HTTP content-length: 1\r\n", 0), std::pair("Content-Length: x\r\n", -1)})
            QCOMPARE(box.relay->getHttpContentLength(text), length);
    }
};

QTEST_GUILESS_MAIN(BridgeTest)
#include "bridge_test.moc"
