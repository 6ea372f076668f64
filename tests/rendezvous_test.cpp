// The rendezvous server: who may say what, and what is answered. Boxes and peers here compute their bytes by themselves.

// clazy:excludeall=non-pod-global-static

#include "introduction/messages.h"
#include "rendezvous/introducer.h"
#include "rendezvous/streams.h"
#include "tests/support/introduced.h"

#include <QTcpSocket>
#include <QtTest>

using namespace introduction;
using namespace std::chrono_literals;

namespace
{
QByteArray ipv4(const QByteArray &lastBytes) { return QByteArray(10, '\0') + "\xff\xff" + lastBytes; }

Place place(const QByteArray &ip, quint16 port)
{
    Place where;
    std::copy(ip.cbegin(), ip.cend(), where.address.ip.begin());
    where.address.port = port;
    return where;
}
const Place home = place(ipv4("\1\2\3\4"), 5000);
const Place away = place(ipv4("\5\6\7\10"), 4500);

/// The other nodes, as one of them sees them: what it has handed on.
struct Others : OtherNodes {
    explicit Others(quint64 ofTickets) : own(ofTickets) {}
    std::uint64_t number() const override { return own; }
    void want(const Uuid & /*box*/, bool isWanted) override { wants = isWanted; }
    void handToBox(const Uuid &box, std::string bytes, std::string back) override
    {
        QCOMPARE(QByteArray::fromStdString(textOf(box)), boxText);
        handed = QByteArray::fromStdString(bytes);
        unclaimed = QByteArray::fromStdString(back);
    }
    void handToNode(std::uint64_t to, std::string bytes) override
    {
        node = to;
        handed = QByteArray::fromStdString(bytes);
    }
    const quint64 own;
    bool wants = false;
    quint64 node = 0;
    QByteArray handed;
    QByteArray unclaimed;
};

/// An Introducer, and the time there.
struct Server {
    explicit Server(bool trustsPlain = false, OtherNodes *others = nullptr)
    {
        Introducer::Options options;
        std::copy(secret.cbegin(), secret.cend(), options.secret.begin());
        options.turn = {"turn.example:3478", "turn secret"};
        options.trustsPlain = trustsPlain;
        options.others = others;
        introducer = std::make_unique<Introducer>(options);
    }
    /// What is sent for a datagram, to `to`.
    QByteArray take(const Place &from, const QByteArray &bytes)
    {
        return note(introducer->take(from, bytes.toStdString(), now, wallClock));
    }
    QByteArray takeHanded(const QByteArray &bytes) { return note(introducer->takeHanded(bytes.toStdString(), now, wallClock)); }
    QByteArray note(const std::optional<Datagram> &sent)
    {
        to = sent ? sent->place : Place();
        return sent ? QByteArray::fromStdString(sent->bytes) : QByteArray();
    }
    /// The cookie that a source is given.
    QByteArray cookie(const Place &from) { return take(from, call(noCookie)).mid(9, 8); }
    bool registerBox(const Place &from, quint64 nonce = 7, quint32 count = 1)
    {
        return take(from, registration(nonce, count, cookie(from))).startsWith('\xa2');
    }
    void wait(std::chrono::seconds time)
    {
        now += time;
        wallClock += time;
    }

    std::unique_ptr<Introducer> introducer;
    Moment now{1000};
    std::chrono::seconds wallClock{1800000000};
    Place to;
};

/// Whether the box gets calls at `where`.
bool isBoxAt(Server *server, const Place &where)
{
    const QByteArray cookie = server->cookie(away);
    return server->take(away, call(cookie)).startsWith('\xa6') && server->to == where;
}
} // namespace

class RendezvousTest : public QObject
{
    Q_OBJECT

private slots:
    void sealsAreThoseOfTheStandard() // draft-irtf-cfrg-xchacha-03, A.3.1
    {
        const QByteArray nonce = QByteArray::fromHex("404142434445464748494a4b4c4d4e4f5051525354555657");
        const QByteArray text = QByteArray::fromHex(
            "bd6d179d3e83d43b9576579493c0e939572a1700252bfaccbed2902c21396cbb731c7f1b0b4aa6440bf3a82f4eda7e39ae64c6708c54c216"
            "cb96b72e1213b4522f8c9ba40db5d945b11b69b982c1bb9e3f3fac2bc369488f76b2383565d3fff921f9664c97637da9768812f615c68b13"
            "b52e");
        const QByteArray tag = QByteArray::fromHex("c0875924c1c7987947deafd8780acf49");
        const std::string known = QByteArray::fromHex("50515253c0c1c2c3c4c5c6c7").toStdString();
        const auto key = *keyOf("808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f");
        const auto plain = unseal((nonce + text + tag).toStdString(), known, key);
        QVERIFY(plain && plain->rfind("Ladies and Gentlemen of the class of '99", 0) == 0);

        std::string sealed = seal("words", "place", key);
        QCOMPARE(*unseal(sealed, "place", key), std::string("words"));
        QVERIFY(seal("words", "place", key) != sealed);
        QVERIFY(!unseal(sealed, "elsewhere", key));
        for (char &byte : sealed) {
            byte ^= 1;
            QVERIFY(!unseal(sealed, "place", key));
            byte ^= 1;
        }
        QVERIFY(!unseal(sealed.substr(0, sealLength - 1), "place", key));
    }

    void boxRegistersFromWhereItProvesToBe()
    {
        Server server;
        const QByteArray first = registration(7, 1, noCookie);
        const QByteArray challenge = server.take(home, first);
        QCOMPARE(challenge.left(9), "\xa3" + bytesOf(quint64(7)));
        QVERIFY(challenge.size() <= first.size() && server.to == home);
        QVERIFY(!isBoxAt(&server, home));
        const QByteArray cookie = challenge.mid(9, 8);
        QCOMPARE(server.take(home, registration(7, 1, cookie)),
                 "\xa2" + bytesOf(quint32(1)) + ipv4("\1\2\3\4") + bytesOf(quint16(5000)) + "\xff\xff");
        QVERIFY(isBoxAt(&server, home));

        QVERIFY(server.take(home, registration(7, 1, cookie)).isEmpty());            // a replay
        QVERIFY(server.take(home, registration(7, 2, noCookie)).startsWith('\xa2')); // where it is known it needs none
        QVERIFY(server.take(home, registration(8, 1, noCookie)).startsWith('\xa3')); // or an old one could be replayed
        QVERIFY(server.registerBox(home, 8, 1));
        const Place moved = place(ipv4("\1\2\3\4"), 5001);
        QVERIFY(server.take(moved, registration(8, 2, cookie)).startsWith('\xa3')); // another's cookie
        QVERIFY(isBoxAt(&server, home));
        QVERIFY(server.registerBox(moved, 8, 2));
        QVERIFY(isBoxAt(&server, moved));

        server.wait(71s);
        server.introducer->forgetSilent(server.now);
        QCOMPARE(server.introducer->counts().boxes.load(), 0U);
        QCOMPARE(server.take(away, call(server.cookie(away))), "\xa4" + callId + '\2');
        server.wait(64s);
        QVERIFY(server.take(home, registration(8, 3, cookie)).startsWith('\xa3')); // too old now
    }

    void callsReachTheirBoxAndAnswersTheirPeer()
    {
        Server server;
        QVERIFY(server.registerBox(home, 77));
        const QByteArray challenge = server.take(away, call(noCookie));
        QCOMPARE(challenge, "\xa3" + callId + challenge.mid(9, 8) + bytesOf(quint64(77)));
        const QByteArray ring = server.take(away, call(challenge.mid(9, 8)));
        QVERIFY(server.to == home);
        QCOMPARE(ring.left(25), "\xa6" + peerUuid + callId);
        QCOMPARE(ring.mid(33, 18), ipv4("\5\6\7\10") + bytesOf(quint16(4500))); // in the ticket
        QCOMPARE(ring.mid(59), QByteArray("for the box") + hmac(ring.chopped(16), tokenOfBox).left(16));

        const QByteArray reply = "\xa7" + boxUuid + peerUuid + callId + ring.mid(25, 34) + "for the peer";
        QVERIFY(server.take(away, sign(reply, tokenOfBox)).isEmpty()); // not from where the box is
        QVERIFY(server.take(home, sign(reply, tokenOfPeer)).isEmpty());
        QByteArray elsewhere = reply;
        elsewhere[41 + 8 + 15] = 99; // the peer's address in the ticket
        QVERIFY(server.take(home, sign(elsewhere, tokenOfBox)).isEmpty());
        const QByteArray answer = server.take(home, sign(reply, tokenOfBox));
        QVERIFY(server.to == away);
        QVERIFY(answer.startsWith("\xa8" + callId) && answer.endsWith("for the peer"));
        const QByteArray sealed = answer.mid(11, qFromBigEndian<quint16>(answer.constData() + 9));
        Key key = {};
        const QByteArray computed = hkdf(tokenOfPeer, "answer");
        std::copy(computed.cbegin(), computed.cend(), key.begin());
        const auto items = Items::of(unseal(sealed.toStdString(), ("\3" + boxUuid + peerUuid + callId).toStdString(), key).value());
        QVERIFY(items->addresses(Item::SeenAddress).at(0) == home.address);
        QVERIFY(items->addresses(Item::CallerAddress).at(0) == away.address);
        QCOMPARE(QByteArray::fromStdString(std::string(items->first(Item::TurnServer))), QByteArray("turn.example:3478"));
        const auto user = QByteArray::fromStdString(std::string(items->first(Item::TurnUser)));
        QCOMPARE(user, QByteArray("1800003600:{0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0}"));
        QCOMPARE(QByteArray::fromStdString(std::string(items->first(Item::TurnPassword))),
                 hmac(user, "turn secret", QCryptographicHash::Sha1).toBase64());

        server.wait(129s);
        server.take(home, registration(77, 2, noCookie));
        QVERIFY(server.registerBox(home, 78));
        QVERIFY(server.take(home, sign(reply, tokenOfBox)).isEmpty()); // an old ticket
    }

    /// Every bit of every datagram that counts, turned: nothing happens, and no answer is longer than its question.
    void nothingForgedCounts()
    {
        Server server;
        QVERIFY(server.registerBox(home));
        const QByteArray cookie = server.cookie(away);
        const QByteArray ring = server.take(away, call(cookie));
        const QList<QPair<Place, QByteArray>> good{{home, registration(7, 2, noCookie)}, {away, call(cookie)}, {home, reply(ring)}};
        for (const auto &[from, bytes] : good) {
            for (int length = 0; length < bytes.size(); length++)
                QVERIFY(!server.take(from, bytes.left(length)).startsWith('\xa2'));
            for (int bit = 0; bit < 8 * bytes.size(); bit++) {
                server.wait(1s); // within its limits
                QByteArray forged = bytes;
                forged[bit / 8] = static_cast<char>(forged.at(bit / 8) ^ 1 << bit % 8);
                const QByteArray sent = server.take(from, forged);
                QVERIFY2(sent.isEmpty() || (server.to == from && sent.size() <= forged.size() && !sent.startsWith('\xa2')),
                         qPrintable(QString::number(bit)));
                if (bit % 16 == 0)
                    server.introducer->m_boxes.see(server.introducer->m_boxes.find(*uuidOf(boxText.toStdString())), server.now);
            }
        }
        QCOMPARE(server.introducer->counts().registrations.load(), 1U);
        QCOMPARE(server.introducer->counts().calls.load(), 1U);
        QCOMPARE(server.introducer->counts().answers.load(), 0U);
    }

    void nodesHandOnCallsAndAnswers()
    {
        Others nearBox(0x100);
        Others nearPeer(0x200);
        Server atBox(false, &nearBox);
        Server atPeer(false, &nearPeer);
        QVERIFY(atBox.registerBox(home) && nearBox.wants);
        const QByteArray cookie = atPeer.cookie(away);
        QVERIFY(atPeer.take(away, call(cookie, "x", tokenOfBox)).startsWith('\xa4') && nearPeer.handed.isEmpty());
        QVERIFY(atPeer.take(away, call(noCookie)).startsWith('\xa3') && nearPeer.handed.isEmpty());
        QVERIFY(atPeer.take(away, call(cookie)).isEmpty());
        const QByteArray handedCall = nearPeer.handed;
        const QByteArray ring = atBox.takeHanded(handedCall);
        QVERIFY(ring.startsWith("\xa6" + peerUuid) && atBox.to == home);
        QVERIFY(atBox.take(home, reply(ring)).isEmpty());
        QCOMPARE(nearBox.node, 0x200U);
        const QByteArray answer = atPeer.takeHanded(nearBox.handed);
        QVERIFY(answer.startsWith("\xa8" + callId) && answer.endsWith("for the peer") && atPeer.to == away);
        QCOMPARE(atPeer.takeHanded(nearPeer.unclaimed), "\xa4" + callId + '\2');
        QVERIFY(atPeer.to == away && atPeer.introducer->counts().unknownBoxes.load() == 1);

        // The box registers with the other node: it is no longer at the first one, which an old word does not change.
        QVERIFY(atPeer.registerBox(away, 7, 2));
        const QByteArray moved = nearPeer.handed;
        for (const QByteArray &good : {handedCall, nearBox.handed, nearPeer.unclaimed, moved}) {
            for (int bit = 0; bit < 8 * good.size(); bit++) {
                QByteArray forged = good;
                forged[bit / 8] = static_cast<char>(forged.at(bit / 8) ^ 1 << bit % 8);
                QVERIFY(atBox.takeHanded(forged).isEmpty() && atPeer.takeHanded(forged).isEmpty() && nearBox.wants);
            }
        }
        nearBox.node = 0;
        QVERIFY(atBox.takeHanded(nearBox.handed).isEmpty() && nearBox.node == 0); // which is not for this node
        atBox.takeHanded(moved);
        QVERIFY(!nearBox.wants && atBox.takeHanded(handedCall).isEmpty());
        QVERIFY(atBox.registerBox(home, 7, 3));
        atBox.takeHanded(moved);
        QVERIFY(nearBox.wants && isBoxAt(&atBox, home));

        // A box that is late may have moved without a word: both are asked then.
        nearBox.handed.clear();
        QVERIFY(isBoxAt(&atBox, home) && nearBox.handed.isEmpty());
        atBox.wait(26s);
        QVERIFY(isBoxAt(&atBox, home) && nearBox.handed.startsWith('\xa9') && nearBox.unclaimed.isEmpty());
        for (int count = 0; count < 40; count++)
            atBox.takeHanded(handedCall);
        QVERIFY(atPeer.takeHanded(nearBox.handed) == "\xa4" + callId + '\3'); // over the box's limit
        atBox.wait(45s);
        atBox.introducer->forgetSilent(atBox.now);
        QVERIFY(!nearBox.wants);
        atPeer.wait(129s);
        QVERIFY(atPeer.takeHanded(nearPeer.unclaimed).isEmpty()); // an old ticket
    }

    void floodsMeetLimits()
    {
        Server server;
        QVERIFY(server.registerBox(home));
        int answered = 0;
        for (int count = 0; count < 1000; count++)
            answered += server.take(away, call(noCookie)).isEmpty() ? 0 : 1;
        QVERIFY2(answered >= 90 && answered <= 110, qPrintable(QString::number(answered)));
        QVERIFY(server.take(home, registration(7, 2, noCookie)).startsWith('\xa2')); // others are served
        server.wait(1s);
        QVERIFY(!server.take(away, call(noCookie)).isEmpty());

        // One peer that comes from many places, then many peers.
        int rung = 0;
        const auto ring = [&](const QByteArray &peer, quint16 number) {
            const Place from = place(ipv4("\5\6" + bytesOf(number)), 1000);
            const QByteArray bytes = call(server.cookie(from), "x", hkdf(tokenOfBox, "peer" + peer), peer);
            rung += server.take(from, bytes).startsWith('\xa6') ? 1 : 0;
        };
        for (quint16 count = 0; count < 100; count++)
            ring(peerUuid, count);
        QCOMPARE(rung, 15);
        for (quint16 count = 100; count < 200; count++)
            ring(QByteArray(14, 'p') + bytesOf(count), count);
        QCOMPARE(rung, 40);
        QVERIFY(server.registerBox(place(ipv4("\1\2\3\4"), 5001), 7, 3)); // a new address brings no new allowance
        const Place late = place(ipv4("\5\7\1\1"), 1000);
        QCOMPARE(server.take(late, call(server.cookie(late))), "\xa4" + callId + '\3');
    }

    void plainRegistrationsCountOnlyWhereTheyAreTrusted()
    {
        const QByteArray plain = QByteArray::fromHex("0100501388") + boxText;
        Server server;
        server.take(home, plain);
        QCOMPARE(server.introducer->counts().plainRegistrations.load(), 1U);
        QCOMPARE(server.introducer->counts().boxes.load(), 0U);

        Server trusting(true);
        QVERIFY(trusting.take(home, plain).isEmpty());
        const QByteArray answer = trusting.take(away, call(trusting.cookie(away)));
        QVERIFY(answer.startsWith("\xa8" + callId) && trusting.to == away);
        QVERIFY(trusting.take(away, call(trusting.cookie(away), "x", tokenOfBox)).startsWith('\xa4')); // no peer's token
        QVERIFY(trusting.registerBox(home));
        trusting.take(away, plain); // must not move a box whose agent has registered it
        QVERIFY(isBoxAt(&trusting, home));

        // What the agent is told of them.
        const auto age = [&trusting](const Place &from, quint32 count) {
            return trusting.take(from, registration(7, count, trusting.cookie(from))).mid(23);
        };
        QCOMPARE(age(home, 2), QByteArray("\xff\xff"));
        trusting.take(home, plain);
        trusting.wait(61s);
        QCOMPARE(age(home, 3), bytesOf(quint16(61)));
        trusting.wait(5s);
        QCOMPARE(age(away, 4), bytesOf(quint16(66))); // wherever the box is now
        for (quint32 count = 5; count < 1200; count++) {
            trusting.wait(60s);
            trusting.take(away, registration(7, count, noCookie));
        }
        QCOMPARE(age(away, 1200), QByteArray("\xff\xff")); // no longer told apart
    }

    void silentStreamsAreClosed()
    {
        Streams streams({"127.0.0.1:7001"});
        QTcpSocket peer;
        peer.connectToHost("127.0.0.1", 7001);
        QVERIFY(peer.waitForConnected());
        const auto takeNothing = [](const Place & /*from*/, std::string_view /*bytes*/) {};
        streams.serve(10s, takeNothing);
        peer.write("x");
        QVERIFY(peer.waitForBytesWritten());
        streams.serve(40s, takeNothing);
        streams.closeSilent(100s);
        QVERIFY(!peer.waitForDisconnected(100));
        streams.closeSilent(101s);
        QVERIFY(peer.waitForDisconnected());
    }
};

QTEST_GUILESS_MAIN(RendezvousTest)
#include "rendezvous_test.moc"
