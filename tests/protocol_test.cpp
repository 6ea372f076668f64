// Cipher, UUID search, inbound handling, outbound queue.

#include "protocol/cipher.h"
#include "tests/support/relayfixture.h"

#include <QRandomGenerator>
#include <QRegExp>

#include <arpa/inet.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

class ProtocolTest : public QObject
{
    Q_OBJECT

private slots:
    void cipherFollowsTheVectors();
    void uuidSearchFollowsItsRule();
    void everyKindIsAnsweredAsItMust_data();
    void everyKindIsAnsweredAsItMust();
    void foreignDatagramsChangeNothing();
    void repeatedRequestIsConfirmedButServedOnce();
    void truncatedDatagramsAreSurvived();
    void confirmationMustFitInEveryPart();
    void connectRequestDropsThePeersTraffic();
    void packetsGoOneAtATimeUntilConfirmed();
    void fiftiethPassGivesThePeerUp();
    void confirmedPacketsExpire();
    void refusedSendsAreTriedAgain();
    void badChecksumDoesNotDeafen();
    void randomDatagramsLeaveItAnswering();
};

// NIST SP 800-38A, F.3.13 and F.3.14, with their key; the IV has a zero byte there, so the relay gets it past its settings.
void ProtocolTest::cipherFollowsTheVectors()
{
    RelayFixture box;
    box.start();
    const QByteArray plain = QByteArray::fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                                 "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const QByteArray iv = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
    const QByteArray wire = QByteArray::fromHex("3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
                                                "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6");
    QCOMPARE(cipher::encipher(plain, testKey, iv), wire);
    QCOMPARE(cipher::decipher(wire, testKey, iv), plain);
    for (const int length : {0, 1, 15, 16, 17, 7089}) {
        const QByteArray text(length, 'x');
        QCOMPARE(box.encrypt(text), Peer::crypt(text, true));
        QCOMPARE(box.decrypt(box.encrypt(text)), text);
    }
    for (const int length : {0, 15, 17, 32}) { // of key or IV: talk in plain
        QCOMPARE(cipher::encipher(plain, QByteArray(length, 'k'), iv), plain);
        QCOMPARE(cipher::decipher(plain, testKey, QByteArray(length, 'i')), plain);
    }
}

void ProtocolTest::uuidSearchFollowsItsRule()
{
    // The rule in its own words: slow, and what peers rely on.
    const auto byTheRule = [](const QByteArray &data) {
        QStringList found{QString(), QString()};
        if (data.size() <= 9)
            return found;
        QRegExp begin(QStringLiteral("\\{[a-fA-F0-9]{8}"));
        int start = 0;
        for (int i = 0; i < data.size(); i++) {
            if (begin.indexIn(QString(data.mid(i, 9))) >= 0) {
                start = i;
                break;
            }
        }
        const QString text(data.mid(start)); // ends at the first zero byte
        QRegExp uuid(QStringLiteral("(\\{[a-fA-F0-9]{8}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{4}-[a-fA-F0-9]{12}\\})"));
        int at = 0;
        for (int i = 0; i < 2 && (at = uuid.indexIn(text, at)) >= 0; i++, at += uuid.matchedLength())
            found[i] = uuid.cap(1);
        return found;
    };
    RelayFixture box;
    box.start();
    const QList<QByteArray> pieces{peerUuid, boxUuid, otherUuid, peerUuid.left(20), boxUuid.mid(3), "{", "}", "-", "{12345678",
                                   "{12345678-", "{aBcDeF0", "{{", QByteArray(1, '\0'), "0", "f", "g", "\xc3\xa9", "\xe2\x82", "\xf0", "\xef\xbb\xbf"};
    QRandomGenerator random(20261124);
    int pairs = 0;
    for (int round = 0; round < 20000; round++) {
        QByteArray data;
        for (int n = random.bounded(8); n > 0; n--)
            data += random.bounded(5) == 0 ? QByteArray(1, static_cast<char>(random.bounded(256))) : pieces.at(random.bounded(pieces.size()));
        const QStringList expected = byTheRule(data);
        pairs += expected.at(1).isEmpty() ? 0 : 1;
        if (box.uuids(data) != expected)
            QFAIL(data.toHex().constData());
    }
    QVERIFY(pairs > 500); // the material is worth something
    QCOMPARE(box.uuids(peerUuid + boxUuid + otherUuid), QStringList({QString(peerUuid), QString(boxUuid)}));
    QCOMPARE(box.uuids(QByteArray("\0\0", 2) + peerUuid + '\0' + boxUuid), QStringList({QString(peerUuid), QString()}));
}

void ProtocolTest::everyKindIsAnsweredAsItMust_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<bool>("enciphered");
    QTest::addColumn<QByteArray>("answer"); // null: none
    QTest::addColumn<bool>("answerEnciphered");
    const Peer peer;
    const QByteArray request = peer.request(0xabcd, 0x1234, "GET /");
    const QByteArray receipt = QByteArray("\x0a\xab\xcd\x12\x34") + boxUuid + peerUuid;
    const QByteArray connect = QByteArray("\x01") + boxUuid + peerUuid;
    const QByteArray keepAlive = QByteArray("\x03") + boxUuid + peerUuid;
    QTest::newRow("connect request") << peer.link(1) << true << connect << true;
    QTest::newRow("connect request in plain") << peer.link(1) << false << connect << true;
    QTest::newRow("keep-alive") << peer.link(3) << true << keepAlive << true;
    QTest::newRow("keep-alive in plain") << peer.link(3) << false << keepAlive << false;
    QTest::newRow("request") << request << true << receipt << true;
    QTest::newRow("request in plain") << request << false << receipt << true;
    QTest::newRow("to another receiver") << peer.link(3, otherUuid) << true << keepAlive << true;
    QTest::newRow("confirmation") << peer.confirmation(1, 1, 0, "x") << true << QByteArray() << false;
    QTest::newRow("unknown kind") << peer.link(2) << true << QByteArray() << false;
}

void ProtocolTest::everyKindIsAnsweredAsItMust()
{
    QFETCH(QByteArray, sent);
    QFETCH(bool, enciphered);
    QFETCH(QByteArray, answer);
    QFETCH(bool, answerEnciphered);
    const WebServer web; // or the relay would wait for one
    RelayFixture box;
    box.start();
    Peer peer;
    peer.sendPlain(enciphered ? Peer::crypt(sent, true) : sent);
    QVERIFY(box.turnUntil([&] { return box.client(peerUuid).lastSeen.isValid(); }));
    QCOMPARE(peer.receiveRaw(), answer.isNull() || !answerEnciphered ? answer : Peer::crypt(answer, true));

    // Whatever its kind, it makes the peer connected, here and in the store, and tells where to answer it.
    QCOMPARE(box.client(peerUuid).udpPortRemote, int(peer.port()));
    QCOMPARE(box.client(peerUuid).host.toString(), QStringLiteral("::ffff:127.0.0.1"));
    QCOMPARE(box.storedStatus(peerUuid), 1);
    QCOMPARE(RelayFixture::logged("info Set connection status for 127.0.0.1 to 1"), 1);
    QCOMPARE(RelayFixture::logged("Set connection status"), 1); // also on a connect request: no second one
    QCOMPARE(RelayFixture::logged("info Connection requested from ::ffff:127.0.0.1 on port "), sent.at(0) == 1 ? 1 : 0);
    QCOMPARE(RelayFixture::logged("debug Keep alive received from ::ffff:127.0.0.1"), sent.at(0) == 3 ? 1 : 0);
}

void ProtocolTest::foreignDatagramsChangeNothing()
{
    RelayFixture box;
    box.start();
    Peer peer;
    const QList<QByteArray> foreign{Peer(strangerUuid).link(3), Peer(boxUuid).link(3), QByteArray("\x03") + peerUuid, "",
                                    "\x03{123456", QByteArray("\x03") + peerUuid + '\0' + boxUuid};
    for (const QByteArray &data : foreign) {
        peer.send(data);
        peer.sendPlain(data);
    }
    box.turns(2 * foreign.size() + 2);
    QVERIFY(peer.receiveRaw().isNull());
    QVERIFY(box.client(peerUuid).lastSeen.isNull());
    QCOMPARE(box.clients().size(), 2);
    QVERIFY2(logLines().isEmpty(), qPrintable(logLines().join('\n')));
}

void ProtocolTest::repeatedRequestIsConfirmedButServedOnce()
{
    RelayFixture box;
    box.start();
    box.requests().append(new UDPHandler::UdpMessage); // a head that is being served keeps the web server out of this
    box.requests().constFirst()->forwarded = true;
    Peer peer;
    Peer other(otherUuid);
    peer.send(peer.request(7, 1, "one"));
    peer.send(peer.request(7, 2, "one"));
    QVERIFY(!box.reply(peer).isEmpty());
    QCOMPARE(box.requests().size(), 2); // one call took one datagram
    QCOMPARE(box.currentSocket(), 1);
    QVERIFY(!box.reply(peer).isEmpty());
    QCOMPARE(box.requests().size(), 2);
    QCOMPARE(box.currentSocket(), 2); // taken from the repeated one too
    QCOMPARE(RelayFixture::logged("debug Added to TCP queue id: 7 socket: 1 Queue size: 2"), 1);
    QCOMPARE(RelayFixture::logged("debug Confirmation UDP msg sent! Msgid: 7"), 2);

    other.send(other.request(7, 3, "another peer's"));
    peer.send(peer.request(8, 4, "another id"));
    box.turns(4);
    QCOMPARE(box.requests().size(), 4);

    box.queuePacket(peerUuid, 9, 0, "answered");
    box.packets().last().confirmed = true;
    box.packets().last().lastSent = RelayFixture::ago(59000);
    peer.send(peer.request(9, 5, "answered a moment ago"));
    box.turns(2);
    QCOMPARE(box.requests().size(), 4);
    QCOMPARE(RelayFixture::logged("Msgid: 9"), 1);
}

void ProtocolTest::truncatedDatagramsAreSurvived()
{
    RelayFixture box;
    box.start();
    box.requests().append(new UDPHandler::UdpMessage);
    box.requests().constFirst()->forwarded = true;
    Peer peer;
    for (const QByteArray &whole : {peer.request(1, 1, "GET / HTTP/1.1"), peer.confirmation(1, 1, 0, "x"), peer.link(1), peer.link(3)}) {
        for (int length = 0; length <= whole.size(); length++) {
            const QByteArray cut = whole.left(length);
            peer.sendPlain(cut);
            box->readyRead();
            if (cut.startsWith('\x09') && length >= 81) {
                QCOMPARE(box.requests().last()->data, whole.mid(81, length - 81));
                QCOMPARE(box.requests().size(), 2);
                delete box.requests().takeLast();
            }
        }
        QCOMPARE(box.requests().size(), whole.startsWith('\x01') ? 1 : box.requests().size());
    }
    QVERIFY(box.client(peerUuid).lastSeen.isValid());
}

void ProtocolTest::confirmationMustFitInEveryPart()
{
    RelayFixture box;
    box.start();
    Peer peer;
    Peer other(otherUuid);
    const auto confirmed = [&] { return std::count_if(box.packets().cbegin(), box.packets().cend(), [](const auto &packet) { return packet.confirmed; }); };
    const auto take = [&](Peer &from, const QByteArray &confirmation) {
        from.send(confirmation);
        box->readyRead();
    };
    box.queuePacket(otherUuid, 5, 1, "slice");
    box.queuePacket(peerUuid, 5, 1, "slice");
    box.queuePacket(peerUuid, 5, 1, "slice"); // alike: only the first is ever found
    take(peer, peer.confirmation(6, 2, 1, "slice"));
    take(peer, peer.confirmation(5, 2, 0, "slice"));
    take(peer, peer.confirmation(5, 2, 1, "other"));
    QCOMPARE(confirmed(), 0);
    take(peer, peer.confirmation(5, 9, 1, "slice")); // the count is only logged
    QVERIFY(box.packets().at(1).confirmed);
    take(peer, peer.confirmation(5, 2, 1, "slice"));
    QCOMPARE(confirmed(), 1);
    take(other, other.confirmation(5, 2, 1, "").left(85) + " anywhere " + Peer::md5("slice"));
    QVERIFY(box.packets().at(0).confirmed);
    QCOMPARE(RelayFixture::logged("debug Remote Confirmation of msgID: 5. Package 1 of 9"), 1);
}

void ProtocolTest::connectRequestDropsThePeersTraffic()
{
    RelayFixture box;
    box.start();
    Peer peer;
    Peer other(otherUuid);
    for (Peer *sender : {&peer, &other, &peer}) {
        sender->send(sender->request(static_cast<quint16>(box.requests().size()), 1, "x"));
        box->readyRead();
    }
    box.queuePacket(peerUuid, 1, 0, "a");
    box.queuePacket(otherUuid, 1, 0, "b");
    box.queuePacket(peerUuid, 1, 1, "c");
    box.packets().last().confirmed = true;
    peer.send(peer.link(1));
    box->readyRead();
    QCOMPARE(box.requests().size(), 1);
    QCOMPARE(box.requests().constFirst()->client.remoteUuid, QString(otherUuid));
    QCOMPARE(box.packets().size(), 1);
    QCOMPARE(box.packets().constFirst().client.remoteUuid, QString(otherUuid));
}

void ProtocolTest::packetsGoOneAtATimeUntilConfirmed()
{
    RelayFixture box;
    box.start();
    Peer peer;
    Peer other(otherUuid);
    box.queuePacket(otherUuid, 1, 0, "first");
    box.queuePacket(peerUuid, 2, 0, "second");
    box.packets()[0].client.udpPortRemote = other.port();
    box.packets()[1].client.udpPortRemote = peer.port();
    QCOMPARE(box.reply(other).mid(89), QByteArray("first"));
    box.turns(3);
    QVERIFY(other.receiveRaw().isNull()); // not again before its time
    box.packets()[0].lastSent = RelayFixture::ago(480);
    const QDateTime due = box.packets().at(0).lastSent.addMSecs(500);
    QCOMPARE(box.reply(other).mid(89), QByteArray("first"));
    QVERIFY(QDateTime::currentDateTime() > due);
    QVERIFY(peer.receiveRaw().isNull()); // the other peer's packet holds it back
    QCOMPARE(box.packets().at(0).tries, 2);
    box.packets()[0].confirmed = true;
    QCOMPARE(box.reply(peer).mid(89), QByteArray("second"));

    box.set("aes_iv", "");
    box.lastSettingsLoad() = RelayFixture::ago(20100);
    box.packets()[1].lastSent = RelayFixture::ago(600);
    box.turns(1);
    QCOMPARE(peer.receive().mid(89), QByteArray("second")); // the reload comes after the send
    box.packets()[1].lastSent = RelayFixture::ago(600);
    QCOMPARE(box.reply(peer, false).mid(89), QByteArray("second")); // no usable IV: in plain
}

void ProtocolTest::fiftiethPassGivesThePeerUp()
{
    RelayFixture box;
    box.start();
    box.queuePacket(peerUuid, 1, 0, "confirmed");
    box.packets()[0].confirmed = true;
    box.packets()[0].lastSent = RelayFixture::ago(1000);
    box.queuePacket(peerUuid, 1, 1, "never confirmed");
    box.queuePacket(otherUuid, 1, 0, "waits");
    box.setStatus(ConnectionStatus::Connected, peerUuid);
    for (int pass = 1; pass <= 50; pass++) {
        QCOMPARE(box.packets().size(), 3);
        box.packets()[1].lastSent = RelayFixture::ago(600);
        box.client(peerUuid).lastSeen = RelayFixture::ago(0);
        box.turns(1);
    }
    QCOMPARE(box.packets().size(), 1);
    QCOMPARE(box.packets().constFirst().client.remoteUuid, QString(otherUuid));
    QCOMPARE(box.storedStatus(peerUuid), 0);
    QCOMPARE(RelayFixture::logged("info Set connection status for 127.0.0.1 to 0"), 1);
}

void ProtocolTest::confirmedPacketsExpire()
{
    RelayFixture box;
    box.start();
    for (int i = 0; i < 3; i++)
        box.queuePacket(peerUuid, 1, i, "x");
    for (const int i : {0, 2})
        box.packets()[i].confirmed = true;
    box.packets()[0].lastSent = RelayFixture::ago(59000);
    box.packets()[1].lastSent = RelayFixture::ago(3600000);
    box.packets()[2].lastSent = RelayFixture::ago(60001);
    box.turns(1);
    QCOMPARE(box.packets().size(), 2);
    QCOMPARE(box.packets().at(1).package, 1); // unconfirmed: age does not count
}

void ProtocolTest::refusedSendsAreTriedAgain()
{
    RelayFixture box;
    box.start();
    Peer peer;
    box.currentRequestId() = 0x4141;
    box.queuePacket(peerUuid, 1, 0, "to port 0, which the kernel refuses");
    box.packets()[0].client.udpPortRemote = 0;
    QElapsedTimer timer;
    timer.start();
    box.turns(1);
    QVERIFY(timer.elapsed() > 3000);
    QCOMPARE(RelayFixture::logged("warning UDP error "), 6);
    QCOMPARE(RelayFixture::logged(".. sending again to 127.0.0.1:0"), 6);
    QCOMPARE(RelayFixture::logged("error UDP message failed to be sent."), 1);
    QVERIFY(logLines().last().endsWith(QStringLiteral(" MsgID: A")));
    QCOMPARE(box.packets().constFirst().tries, 1);

    box.packets()[0].lastSent = RelayFixture::ago(600);
    logLines().clear();
    peer.send(peer.link(3));
    peer.send(peer.link(1)); // taken in while the relay waits: the packet is gone, and what is left is not touched
    box.queuePacket(otherUuid, 1, 0, "next");
    box->turn();
    box->turn();
    QCOMPARE(RelayFixture::logged("warning UDP error "), 1);
    QCOMPARE(box.packets().size(), 1);
    QVERIFY(box.packets().constFirst().tries <= 1);
}

void ProtocolTest::badChecksumDoesNotDeafen()
{
    RelayFixture box;
    box.start();
    const int raw = socket(AF_INET, SOCK_RAW, IPPROTO_UDP);
    QVERIFY(raw >= 0); // the test's namespace allows it
    struct {
        udphdr header;
        char payload[200]; // the kernel checks short datagrams before it wakes the reader, long ones after
    } const wrong{{{{htons(4444), htons(5000), htons(sizeof wrong), htons(0x1234)}}}, {}};
    sockaddr_in to{AF_INET, htons(5000), {htonl(INADDR_LOOPBACK)}, {}};
    for (int i = 0; i < 3; i++) {
        QCOMPARE(sendto(raw, &wrong, sizeof wrong, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), ssize_t(sizeof wrong));
        box.turns(2);
    }
    close(raw);
    Peer peer;
    peer.send(peer.link(3));
    QCOMPARE(box.reply(peer), QByteArray("\x03") + boxUuid + peerUuid);
}

void ProtocolTest::randomDatagramsLeaveItAnswering()
{
    RelayFixture box;
    box.start();
    WebServer web;
    QRandomGenerator random(1);
    Peer peer;
    Peer stranger(strangerUuid);
    for (int i = 0; i < 100000; i++) {
        Peer &sender = random.bounded(4) == 0 ? stranger : peer;
        const QByteArray seeds[] = {sender.request(static_cast<quint16>(random.bounded(65536)), 1, "GET / HTTP/1.1\r\n\r\n"),
                                    sender.confirmation(static_cast<quint16>(random.bounded(65536)), 1, 0, "x"), sender.link(1), sender.link(3),
                                    QByteArray(random.bounded(2000), static_cast<char>(random.bounded(256)))};
        QByteArray data = seeds[random.bounded(5)];
        for (int n = random.bounded(4); n > 0 && !data.isEmpty(); n--)
            data[random.bounded(data.size())] = static_cast<char>(random.bounded(256));
        if (random.bounded(3) == 0)
            data.truncate(random.bounded(data.size() + 1));
        if (random.bounded(2) == 0)
            sender.send(data);
        else
            sender.sendPlain(data);
        box->readyRead();
        peer.receiveRaw();
    }
    while (!peer.receiveRaw().isNull()) {
    }
    peer.send(peer.link(1));
    QCOMPARE(box.reply(peer), QByteArray("\x01") + boxUuid + peerUuid);
    peer.send(peer.request(1, 1, "GET /alive"));
    QVERIFY(box.turnUntil([&] { return web.takeRequest() == "GET /alive"; }));
}

QTEST_GUILESS_MAIN(ProtocolTest)
#include "protocol_test.moc"
