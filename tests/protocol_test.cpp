// Cipher, UUID search, inbound handling, outbound queue.

#include "protocol/cipher.h"
#include "tests/support/box.h"

#include <QRandomGenerator>
#include <QRegExp>

#include <arpa/inet.h>
#include <unistd.h>

#include <tuple>

namespace
{
/// The rule of the UUID search in its own words, and slow.
QStringList uuidsByTheRule(const QByteArray &data)
{
    QStringList found{QString(), QString()};
    QRegExp begin("\\{[a-fA-F0-9]{8}");
    int start = 0;
    while (start < data.size() && begin.indexIn(QString(data.mid(start, 9))) < 0)
        start++;
    const QString text(data.mid(start % std::max(data.size(), 1))); // ends at the first zero byte
    QRegExp uuid("(\\{[a-fA-F0-9]{8}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{12}\\})");
    for (int i = 0, at = 0; data.size() > 9 && i < 2 && (at = uuid.indexIn(text, at)) >= 0; i++, at += uuid.matchedLength())
        found[i] = uuid.cap(1);
    return found;
}
} // namespace

class ProtocolTest : public QObject
{
    Q_OBJECT

private slots:
    void cipherFollowsTheVectors() // NIST SP 800-38A, F.3.13 and F.3.14
    {
        const auto iv = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
        const auto plain = QByteArray::fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                               "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
        const auto enciphered = QByteArray::fromHex("3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
                                                    "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6");
        QCOMPARE(cipher::encipher(plain, testKey, iv), enciphered);
        QCOMPARE(cipher::decipher(enciphered, testKey, iv), plain);
        for (const int length : {0, 15, 17, 32}) { // of key or IV: talk in plain
            QCOMPARE(cipher::encipher(plain, QByteArray(length, 'k'), iv), plain);
            QCOMPARE(cipher::decipher(plain, testKey, QByteArray(length, 'i')), plain);
        }
    }

    void uuidSearchFollowsItsRule()
    {
        StartedBox box;
        const auto pieces = QList<QByteArray>{peerUuid, boxUuid, otherUuid, peerUuid.left(20), boxUuid.mid(3), QByteArray(1, '\0')} +
                            QByteArray("{ } - {12345678 {12345678- {aBcDeF0 0 f g \xc3\xa9 \xe2\x82 \xf0 \xef\xbb\xbf "
                                       "{ABCDEFab-CDEF-4abc-8DEF-0123456789AF}")
                                .split(' ');
        QRandomGenerator random(20261124);
        int pairs = 0;
        for (int round = 0; round < 20000; round++) {
            QByteArray data;
            for (int n = random.bounded(8); n > 0; n--)
                data += random.bounded(5) == 0 ? QByteArray(1, char(random.bounded(256))) : pieces.at(random.bounded(pieces.size()));
            const QStringList expected = uuidsByTheRule(data);
            pairs += expected.at(1).isEmpty() ? 0 : 1;
            QVERIFY2(box.relay->wrapUUID(data) == expected, data.toHex());
        }
        QVERIFY(pairs > 500); // the material is worth something
        QCOMPARE(box.relay->wrapUUID(QByteArray(2, '\0') + peerUuid + '\0' + boxUuid), QStringList({peerUuid, ""}));
    }

    void everyDatagramGetsWhatItMust()
    {
        const WebServer web; // or the relay would wait for one
        const Peer sender;
        const QByteArray request = sender.request(0xabcd, 0x1234, "GET /");
        const QByteArray receipt = "\x0a\xab\xcd\x12\x34" + boxUuid + peerUuid;
        const QByteArray connect = "\x01" + boxUuid + peerUuid;
        const QByteArray alive = "\x03" + boxUuid + peerUuid;
        const QByteArray nothing;
        const QList<std::tuple<const char *, QByteArray, bool, QByteArray, bool, bool>> rows{
            // sent, enciphered, answer, enciphered, from a known peer
            {"connect", sender.link(1), true, connect, true, true},
            {"connect in plain", sender.link(1), false, connect, true, true},
            {"keep-alive", sender.link(3), true, alive, true, true},
            {"keep-alive in plain", sender.link(3), false, alive, false, true},
            {"to another receiver", sender.link(3, otherUuid), true, alive, true, true},
            {"request", request, true, receipt, true, true},
            {"request in plain", request, false, receipt, true, true},
            {"confirmation", sender.confirmation(1, 1, 0, "x"), true, nothing, false, true},
            {"confirmation in plain", sender.confirmation(1, 1, 0, "x"), false, nothing, false, true},
            {"unknown kind", sender.link(2), true, nothing, false, true},
            {"peer in other letters", Peer(peerUuid.toUpper()).link(3), true, nothing, false, false},
            {"stranger", Peer(strangerUuid).link(3), true, nothing, false, false},
            {"the box itself", Peer(boxUuid).link(3), true, nothing, false, false},
            {"no receiver", sender.link(3, ""), true, nothing, false, false},
            {"receiver behind a zero", sender.link(3, '\0' + boxUuid), false, nothing, false, false},
            {"empty", nothing, false, nothing, false, false}};
        for (const auto &[name, sent, enciphered, answer, answerEnciphered, known] : rows) {
            for (const int before : {0, 2, 3}) {
                Box box;
                box.start({peerUuid, otherUuid, boxUuid});
                box.client().status = quint8(before);
                Peer peer;
                peer.sendPlain(enciphered ? Peer::crypt(sent, true) : sent);
                box.relay->readyRead();
                QVERIFY2(peer.receive() == (answerEnciphered ? Peer::crypt(answer, true) : answer), name);
                QVERIFY2(answer.isNull() || peer.senderPort == 5000, name);
                // Whatever its kind, it makes a known peer connected, and tells where to answer it.
                QVERIFY2(box.client().lastSeen.isValid() == known && box.client().status == (known ? 1 : before), name);
                QVERIFY2(box.storedStatus(peerUuid) == int(known) && box.client(boxUuid).lastSeen.isNull(), name);
                QCOMPARE(box.client().udpPortRemote, known ? peer.socket.localPort() : 0);
                QCOMPARE(box.client().host.toString(), known ? "::ffff:127.0.0.1" : "127.0.0.1");
                // A connect request sets the state of the box's own row, so that the peer stays connected.
                QVERIFY2(box.storedStatus(boxUuid) == (answer == connect ? 3 : 0), name);
                QStringList lines;
                if (known)
                    lines += "info Set connection status for 127.0.0.1 to 1";
                if (answer == connect)
                    lines += {"info Set connection status for 127.0.0.1 to 3",
                              "info Connection requested from ::ffff:127.0.0.1 on port " + QString::number(peer.socket.localPort())};
                if (answer == alive)
                    lines += "debug Keep alive received from ::ffff:127.0.0.1";
                if (answer == receipt)
                    lines +=
                        {"debug UDP request recv id: 43981 socket: 4660", "debug Added to TCP queue id: 43981 socket: 4660 Queue size: 1",
                         "debug Confirmation UDP msg sent! Msgid: 43981"};
                if (sent.startsWith('\x0a'))
                    lines += "debug Remote Confirmation of msgID: 1. Package 0 of 1";
                QVERIFY2(logLines() == lines, name);
            }
        }
    }

    void repeatedRequestIsConfirmedButServedOnce()
    {
        StartedBox box;
        const auto &requests = box.relay->tcpQueue;
        box.relay->tcpQueue.append(new UDPHandler::UdpMessage);
        requests.first()->forwarded = true; // keeps the web server out of this
        Peer peer;
        Peer other(otherUuid);
        peer.send(peer.request(7, 1, "one"));
        peer.send(peer.request(7, 0xbeef, "two"));
        for (const int socketId : {1, 0xbeef}) { // one datagram a call; the socket id is taken from the repeated one too
            QVERIFY(!box.reply(peer).isEmpty() && requests.size() == 2);
            QCOMPARE(box.relay->currentSocket, socketId);
        }
        QCOMPARE(logged("debug Added to TCP queue id: 7 socket: 1 Queue size: 2"), 1);
        QCOMPARE(logged("debug Confirmation UDP msg sent! Msgid: 7"), 2);
        QCOMPARE(requests.at(1)->data, "one");
        for (const int id : {9, 12}) {
            box.queue(other, 11, 0, "another's");
            box.queue(peer, id, 0, "just answered", id == 9);
            box.take(peer, peer.request(quint32(id), 5, "again"));
            QVERIFY(requests.size() == 2 && logged(QString("Msgid: %1").arg(id)) == 1);
        }
        for (const int id : {7, 9})
            box.take(other, other.request(quint32(id), 3, "another peer's"));
        for (const int id : {8, 10})
            box.take(peer, peer.request(quint32(id), 4, "another id"));
        QVERIFY(requests.size() == 6 && requests.last()->client.lastSeen.isValid() && requests.last()->client.status == 1);
        box.take(peer, peer.link(3));
        box.take(peer, peer.confirmation(1, 1, 0, ""));
        QCOMPARE(logged("Set connection status"), 2); // one for each peer: who is connected is not connected again
    }

    void confirmationMustFitInEveryPart()
    {
        StartedBox box;
        Peer peer;
        Peer other(otherUuid);
        const QByteArray right = peer.confirmation(40005, 300, 257, "slice");
        const QByteArray whole = other.confirmation(40005, 300, 257, "slice");
        const QList<std::tuple<Peer *, QByteArray, QList<bool>>> rows{
            {&peer, peer.confirmation(40006, 300, 257, "slice"), {false, false, false}},
            {&peer, peer.confirmation(40005, 300, 256, "slice"), {false, false, false}},
            {&peer, peer.confirmation(40005, 300, 257, "x"), {false, false, false}},
            {&peer, peer.confirmation(40005, 9, 257, "slice"), {false, true, false}}, // the count is only logged
            {&peer, right, {false, true, false}},
            {&other, whole.left(9) + whole.right(5) + " anywhere " + whole.mid(9, 76), {true, true, false}}};
        box.queue(other, 40005, 257, "slice");
        box.queue(peer, 40005, 257, "slice");
        box.queue(peer, 40005, 257, "slice");    // the like of the one before: only the first is ever found
        for (int kind = 0; kind < 256; kind++) { // of what is none of its kinds nothing comes, but that its sender is connected
            if (!QList<int>{1, 3, 9, 10}.contains(kind))
                box.take(peer, char(kind) + right.mid(1));
        }
        QVERIFY(peer.receive().isNull() && box.relay->tcpQueue.isEmpty() && logLines().size() == 1);
        for (const auto &[sender, data, confirmed] : rows) {
            box.take(*sender, data);
            for (int i = 0; i < 3; i++)
                QCOMPARE(box.relay->udpQueue.at(i).confirmed, confirmed.at(i));
        }
        QCOMPARE(logged("debug Remote Confirmation of msgID: 40005. Package 257 of 9"), 1);
    }

    void connectRequestDropsThePeersTraffic()
    {
        StartedBox box;
        Peer peer;
        Peer other(otherUuid);
        for (Peer *sender : {&peer, &other, &peer, &other, &peer, &other}) {
            box.take(*sender, sender->request(quint32(box.relay->tcpQueue.size()), 1, "x"));
            box.queue(*sender, 100, box.relay->udpQueue.size(), "x", box.relay->udpQueue.size() == 2);
        }
        box.take(peer, peer.link(1));
        QVERIFY(box.relay->tcpQueue.size() == 3 && box.relay->udpQueue.size() == 3);
        for (int i = 0; i < 3; i++) // the other peer's, in their order
            QVERIFY(box.relay->tcpQueue.at(i)->msgId == 2 * i + 1 && box.relay->udpQueue.at(i).package == 2 * i + 1);
    }

    void packetsGoOneAtATimeUntilConfirmed()
    {
        StartedBox box;
        Peer peer;
        Peer other(otherUuid);
        box.queue(other, 1, 0, "first");
        box.queue(peer, 2, 0, "second");
        auto &packets = box.relay->udpQueue;
        box.client(otherUuid).host = QHostAddress("192.0.2.9"); // a packet goes where its peer was when it was made
        box.client(otherUuid).udpPortRemote = 1;
        QCOMPARE(box.reply(other).mid(89), "first");
        box.turns(3);
        QVERIFY(other.receive().isNull()); // not again before its time
        packets[0].lastSent = ago(480);
        const QDateTime due = packets.at(0).lastSent.addMSecs(500);
        QCOMPARE(box.reply(other).mid(89), "first");
        QVERIFY(QDateTime::currentDateTime() > due && packets.at(0).tries == 2);
        QVERIFY(peer.receive().isNull()); // the other peer's packet holds it back
        packets[0].lastSent = ago(540);   // nor much later than that
        box.turns(1);
        QCOMPARE(packets.at(0).tries, 3);
        packets[0].confirmed = true;
        QCOMPARE(box.reply(peer).mid(89), "second");
        box.relay->aesIv.chop(1); // no usable IV: in plain
        packets[1].lastSent = ago(600);
        box.turns(1);
        QCOMPARE(peer.receive().mid(89), "second");
    }

    void packetsEndConfirmedOrWithTheirFiftiethPass()
    {
        StartedBox box;
        auto &packets = box.relay->udpQueue;
        box.queue(Peer(), 1, 0, "x", true).lastSent = ago(55000);
        box.queue(Peer(), 1, 1, "x", true).lastSent = ago(60001);
        box.turns(1); // expires also when all are confirmed
        QCOMPARE(packets.size(), 1);
        box.queue(Peer(), 1, 2, "never confirmed");
        box.queue(Peer(otherUuid), 1, 0, "waits");
        box.relay->setConnectionStatus(ConnectionStatus::Connected, peerUuid);
        for (int pass = 1; pass <= 50; pass++) {
            packets[1].lastSent = ago(3600000); // it does not expire
            box.relay->dropExpiredPackets();
            QVERIFY(packets.size() == 3 && packets.first().package == 0);
            box.client().lastSeen = ago(0);
            box.turns(1);
        }
        QVERIFY(packets.size() == 1 && packets.first().client.remoteUuid == otherUuid && box.storedStatus(peerUuid) == 0);
        QCOMPARE(logged("info Set connection status for 127.0.0.1 to 0"), 1);
        box.queue(Peer(), 1, 3, "x", true).lastSent = ago(60001);
        box.turns(1); // nor does one that waits keep what is in the way of nobody
        QCOMPARE(packets.size(), 1);
    }

    void refusedSendsAreTriedAgain()
    {
        StartedBox box;
        Peer peer;
        box.relay->currentRequestId = 0x4141;
        box.queue(peer, 1, 0, "x").client.udpPortRemote = 0; // refused by the kernel
        const QDateTime begin = QDateTime::currentDateTime();
        box.turns(1);
        QVERIFY(box.relay->udpQueue.first().lastSent > begin.addMSecs(3000)); // counted from the end of the pass
        QCOMPARE(logged(QString(" (%1) .. sending again to 127.0.0.1:0").arg(box.relay->udpSocket->error())), 6);
        QVERIFY(logLines().last().startsWith("error UDP message failed to be sent.") && logLines().last().endsWith(" MsgID: A"));
        QVERIFY(logged("warning UDP error ") == 6 && box.relay->udpQueue.first().tries == 1);

        peer.send(peer.link(3));
        peer.send(peer.confirmation(1, 1, 0, "x")); // taken in while the relay waits: no need to try on
        peer.send(peer.confirmation(1, 1, 1, "y")); // and the clean-up comes behind that
        box.relay->udpQueue[0].lastSent = ago(600);
        box.queue(peer, 1, 1, "y").lastSent = ago(60001);
        box.turns(1);
        QVERIFY(logged("warning UDP error ") == 7 && box.relay->udpQueue.size() == 1);
        box.relay->udpQueue[0].confirmed = false;

        // Its peer connects anew while the relay waits: the packet is gone, and the next one is not taken for it.
        box.relay->udpQueue[0].lastSent = ago(600);
        box.queue(Peer(otherUuid), 1, 0, "next");
        peer.send(peer.link(3));
        peer.send(peer.link(1));
        box.turns(1);
        QVERIFY(logged("warning UDP error ") == 8 && box.relay->udpQueue.size() == 1 && box.relay->udpQueue.first().tries == 0);
    }

    void badChecksumDoesNotDeafen()
    {
        StartedBox box;
        const int raw = socket(AF_INET, SOCK_RAW, IPPROTO_UDP);
        // The kernel checks short datagrams before it wakes the reader, long ones after.
        const QByteArray wrong = wire(4444, 2) + wire(5000, 2) + wire(208, 2) + wire(0x1234, 2) + QByteArray(200, '\0');
        const sockaddr_in to{AF_INET, htons(5000), {htonl(INADDR_LOOPBACK)}, {}};
        for (int i = 0; i < 3; i++) {
            QVERIFY(sendto(raw, wrong.constData(), 208, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 208);
            box.turns(2);
        }
        close(raw);
        Peer peer;
        peer.send(peer.link(3));
        QCOMPARE(box.reply(peer), "\x03" + boxUuid + peerUuid);
    }

    void randomDatagramsLeaveItAnswering()
    {
        WebServer web;
        StartedBox box;
        QRandomGenerator random(1);
        Peer peer;
        Peer stranger(strangerUuid);
        for (int i = 0; i < 100000; i++) {
            Peer &sender = random.bounded(4) == 0 ? stranger : peer;
            const quint32 id = random.bounded(65536U);
            QByteArray data[]{sender.request(id, 1, "GET /"), sender.confirmation(id, 1, 0, "x"), sender.link(1), sender.link(3),
                              QByteArray(random.bounded(2000), char(id))};
            QByteArray &one = data[random.bounded(5)];
            for (int n = random.bounded(4); n > 0 && !one.isEmpty(); n--)
                one[random.bounded(one.size())] = char(random.bounded(256));
            one.truncate(random.bounded(3) == 0 ? random.bounded(one.size() + 1) : one.size());
            random.bounded(2) == 0 ? sender.send(one) : sender.sendPlain(one);
            box.relay->readyRead();
            peer.receive();
        }
        while (!peer.receive().isNull()) {
        }
        peer.send(peer.link(1));
        QCOMPARE(box.reply(peer), "\x01" + boxUuid + peerUuid);
        peer.send(peer.request(1, 1, "GET /alive"));
        QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /alive"; }));
    }
};

QTEST_GUILESS_MAIN(ProtocolTest)
#include "protocol_test.moc"
