// nat-relay-agent as it is run, beside a real relay and a real rendezvous server, or one that lies.

// clazy:excludeall=non-pod-global-static

#include "agent/callmemory.h"
#include "agent/onlyone.h"
#include "agent/relaywatch.h"
#include "agent/sharedport.h"
#include "introduction/hostaddress.h"
#include "tests/support/introducedbox.h"

#include <atomic>
#include <csignal>
#include <thread>

using namespace std::chrono_literals;

class AgentTest : public QObject, IntroducedBox
{
    Q_OBJECT

    static QByteArray at(const Caller &caller) { return "192.0.2.1 " + ports(caller.socket.localPort()) + " 2"; }
    static QByteArray ports(int port) { return QByteArray::number(port - 1) + ' ' + QByteArray::number(port); }

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void callOpensTheWay()
    {
        startServer();
        startRelay();
        startAgent();
        QVERIFY2(awaitAgent("Registered at 192.0.2.1:7000, seen as 192.0.2.1:5000."), agentLog);
        Caller peer;
        const auto call = [&peer](const QByteArray &cookie, const QByteArray &nonce) {
            peer.socket.writeDatagram(peer.call(cookie, peer.sealed(nonce)), lan, 7000);
        };
        call(noCookie, noCookie);
        const QByteArray challenge = peer.await("\xa3" + peer.id);
        call(challenge.mid(9, 8), challenge.mid(17, 8));
        QByteArray answer;
        int knocks = 0;
        const auto collect = [&] {
            for (QByteArray data = peer.receive(); !data.isNull(); data = peer.receive()) {
                answer = data.startsWith('\xa8') ? data : answer;
                knocks += data == peer.knock() && peer.senderPort == 5000 ? 1 : 0;
            }
            return knocks > 0 && !answer.isEmpty();
        };
        QVERIFY(QTest::qWaitFor(collect, 10000));
        const auto items = peer.opened(answer.mid(11 + qFromBigEndian<quint16>(answer.constData() + 9)));
        QVERIFY(items.value(Verdict) == welcome && items.value(BoxNonce) == challenge.mid(17, 8));
        QCOMPARE(items.values(OwnAddress), QList<QByteArray>{address(lan, 5000)});
        QCOMPARE(knocks, 1);
        QVERIFY2(QTest::qWaitFor([&] { return collect(), knocks > 100; }, 10000), "the relay's burst, as the peer was silent");
        QVERIFY(row(peerUuid).startsWith("192.0.2.1 " + ports(peer.socket.localPort()))); // the status is the relay's by now

        agent->terminate();
        QVERIFY(agent->waitForFinished(1000) && agent->exitCode() == 0);
    }

    void rowsAreWrittenWhereTheyMustBe()
    {
        const QByteArray before = "127.0.0.1 4000 4001 ";
        const QByteArray relayed = item(RelayedAddress, address(QHostAddress("192.0.2.77"), 50000));
        const QByteArray onlyHere = address(QHostAddress::LocalHost, 5000);
        const QByteArray uuids = "{%-0000-4000-8000-00000000000c}";
        struct Case {
            int status;
            QByteArray items, seen, row; // empty: where the peer is
            bool isAtOnce;
        };
        const QList<Case> cases{{1, "", "", before + "1", false},
                                {0, item(RelayedAddress, onlyHere), "", before + "0", false},
                                {0, "", onlyHere, before + "0", false},
                                {0, "", address(QHostAddress("169.254.169.254"), 80), before + "0", false},
                                {0, "", address(QHostAddress("224.0.0.1"), 80), before + "0", false},
                                {0, "", address(lan, 0), before + "0", false},
                                {0, noDatagrams, "", before + "0", false},
                                {0, noDatagrams + burstWanted, "", before + "0", false},
                                {3, relayed + noDatagrams, "", "192.0.2.77 49999 -1 2", false},
                                {1, burstWanted, "", "", true},
                                {0, relayed + burstWanted, "", "", true},
                                {0, "", "", "", false}};
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        std::vector<std::unique_ptr<Caller>> callers;
        for (const Case &one : cases) {
            callers.push_back(std::make_unique<Caller>(QByteArray(uuids).replace('%', QByteArray::number(10000000 + int(callers.size())))));
            Caller &caller = *callers.back();
            box->addPeer(caller.uuid.toUpper(), one.status);
            const QByteArray sealed = caller.sealed(fake.nonce, one.items);
            const auto items = caller.opened(fake.reply(one.seen.isEmpty() ? caller.ring(sealed) : caller.ring(sealed, one.seen)));
            QCOMPARE(items.value(Verdict), welcome);
            QTRY_COMPARE(row(caller.uuid.toUpper()), one.isAtOnce ? at(caller) : before + QByteArray::number(one.status));
        }
        // The last one's turn comes after those of the others.
        QVERIFY(QTest::qWaitFor([&] { return row(callers.back()->uuid.toUpper()).endsWith('2'); }, 10000));
        for (size_t index = 0; index < callers.size(); index++) {
            const QByteArray expected = cases.at(int(index)).row;
            QCOMPARE(row(callers.at(index)->uuid.toUpper()), expected.isEmpty() ? at(*callers.at(index)) : expected);
        }
        QCOMPARE(row(peerUuid), before + "0");
    }

    void nothingForgedOrRepeatedCounts()
    {
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        Caller peer;
        const QByteArray good = peer.ring(peer.sealed(fake.nonce, burstWanted));
        int sent = 0;
        const auto sendForged = [&](const QByteArray &bytes) {
            fake.send(bytes);
            if (++sent % 50 == 0)
                QTest::qWait(1); // or the socket's buffer overflows
        };
        for (int place = 0; place < good.size(); place++) {
            QByteArray forged = good;
            forged[place] = static_cast<char>(forged.at(place) ^ 1);
            sendForged(forged);
            sendForged(good.left(place));
            if (place < 25 || (place >= 59 && place < good.size() - 16)) // all but the ticket, by a server that has the box's token
                sendForged(sign(forged.chopped(16), tokenOfBox()));
        }
        Caller other(otherUuid); // in another's name, with a key that is one's own
        const std::string plain = (item(BoxNonce, fake.nonce) + burstWanted).toStdString();
        sendForged(other.ring(QByteArray::fromStdString(introduction::seal(plain, other.context(1), peer.key()))));
        const QByteArray stolen = sign(good.left(1) + bytesOfUuid(otherUuid) + good.mid(17).chopped(16), tokenOfBox());
        sendForged(stolen);
        fake.send(good);
        QTRY_VERIFY(!fake.replies.isEmpty());
        QCOMPARE(fake.replies.size(), 1); // for it is answered after all before it
        const QByteArray reply = fake.replies.constFirst().mid(75).chopped(16);
        QCOMPARE(peer.opened(reply).value(Verdict), welcome);
        QTRY_COMPARE(row(peerUuid), at(peer));
        QCOMPARE(peer.knocks(), 1);
        box->sql("UPDATE nat_traverse SET status = 0");
        QCOMPARE(fake.reply(good), reply);
        Caller third; // the same call, by a server that names another address
        QCOMPARE(fake.reply(third.ring(good.mid(59).chopped(16))), reply);
        QCOMPARE(peer.knocks() + third.knocks(), 0);
        QVERIFY(row(peerUuid).endsWith(" 0"));

        // What the server says unsigned must answer what the agent has said last.
        const int before = fake.registrations;
        for (const QByteArray &message : {"\xa3" + fake.nonce + QByteArray(16, 'c'), "\xa4" + fake.nonce + '\1'}) {
            for (int place = 0; place < message.size(); place++) {
                QByteArray forged = message;
                forged[place] = static_cast<char>(forged.at(place) ^ 1);
                if (place < 9)
                    sendForged(forged);
                sendForged(message.left(place));
            }
        }
        fake.reply(good); // comes after all these
        QVERIFY(!awaitAgent("refuses", 100) && fake.registrations == before);
        fake.send("\xa3" + fake.nonce + QByteArray(16, 'c'));
        QTRY_COMPARE(fake.registrations, before + 1);
    }

    void ownerSeesHowPeersCome()
    {
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        Caller peer;
        const auto shown = [](const QString &word = "--json") {
            QProcess admin;
            admin.start(BUILD_DIR "/nat-relay-admin", QStringList{"peers"} + QStringList(word).filter("-"));
            return admin.waitForFinished() ? admin.readAllStandardOutput() : QByteArray();
        };
        QVERIFY(!shown().contains("call_seconds"));
        const QByteArray relayed = item(RelayedAddress, address(QHostAddress("192.0.2.77"), 50000));
        const QList<std::tuple<QByteArray, int, QByteArray>> calls{// what a call says, the row's status, the way that is shown
                                                                   {relayed, 1, ""},
                                                                   {relayed + item(OpenWay, "\5"), 1, "carried"},
                                                                   {relayed + burstWanted, 1, "carried"},
                                                                   {item(OpenWay, "\4"), 1, "punched"},
                                                                   {item(OpenWay, "\1"), 0, ""},
                                                                   {item(OpenWay, "\1"), 1, "same-network"},
                                                                   {"", 1, ""},
                                                                   {item(OpenWay, "\2"), 1, "ipv6"},
                                                                   {item(OpenWay, "\3"), 1, "direct"}};
        for (const auto &[items, status, way] : calls) {
            peer.id[0] = static_cast<char>(peer.id.at(0) + 1);
            QCOMPARE(peer.opened(fake.reply(peer.ring(peer.sealed(fake.nonce, items)))).value(Verdict), welcome);
            QCOMPARE(peer.knocks(), items.contains(char(OpenWay)) ? 0 : 1); // who only tells something is not disturbed
            box->sql("UPDATE nat_traverse SET status = " + QByteArray::number(status));
            const QByteArray json = shown();
            QVERIFY2(json.contains("\"called_from\": \"192.0.2.1:" + QByteArray::number(peer.socket.localPort()) + '"'), json);
            QVERIFY2(way.isEmpty() ? !json.contains("\"way\"") : json.contains("\"way\": \"" + way + '"'), json);
        }
        QVERIFY2(shown("").contains("connected  direct for "), shown(""));
    }

    void refusedAreToldWhy()
    {
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        Caller stranger(strangerUuid);
        const auto refusal = stranger.opened(fake.reply(stranger.ring(stranger.sealed(fake.nonce, burstWanted))));
        QVERIFY(refusal.value(Verdict) == unknownPeer && !refusal.contains(OwnAddress));
        Caller peer;
        const auto stale = peer.opened(fake.reply(peer.ring(peer.sealed("old one."))));
        QVERIFY(stale.value(Verdict) == staleNonce && stale.value(BoxNonce) == fake.nonce && !stale.contains(OwnAddress));
        QCOMPARE(stranger.knocks() + peer.knocks(), 0);

        box->sql("DELETE FROM nat_traverse"); // no restart makes that known
        peer.id = "removed.";
        QCOMPARE(peer.opened(fake.reply(peer.ring(peer.sealed(fake.nonce)))).value(Verdict), unknownPeer);
        box->addPeer(peerUuid);
        QList<QByteArray> verdicts;
        for (int count = 0; count < 15 && !verdicts.contains(busy); count++) {
            peer.id = "call id" + QByteArray(1, static_cast<char>('a' + count));
            verdicts += peer.opened(fake.reply(peer.ring(peer.sealed(fake.nonce, burstWanted)))).value(Verdict);
            if (count < 3) { // a fourth burst would be too much
                QTRY_COMPARE(row(peerUuid), at(peer));
                box->sql("UPDATE nat_traverse SET status = 7");
            }
        }
        QVERIFY(verdicts.size() > 10 && verdicts.count(welcome) == verdicts.size() - 1);
        QCOMPARE(peer.knocks(), verdicts.size() - 1);
        QVERIFY(row(peerUuid).endsWith(" 7"));
    }

    void noncesAge()
    {
        CallMemory memory;
        const CallMemory::Caller caller({}, 7);
        const auto first = memory.nonce(1s);
        memory.remember(first, caller, "reply");
        QVERIFY(memory.nonce(599s) == first && *memory.find(first, caller) == "reply");
        const auto second = memory.nonce(602s);
        QVERIFY(second != first && memory.isFresh(first) && memory.isFresh(second));
        QVERIFY(*memory.find(first, caller) == "reply" && memory.find(second, caller) == nullptr);
        QVERIFY(memory.nonce(1204s) != second && memory.isFresh(second) && !memory.isFresh(first));

        unsigned count = 0; // what is remembered has an end
        for (const auto third = memory.nonce(1204s); count < 5000 && memory.nonce(1204s) == third; count++)
            memory.remember(third, {{}, count}, "reply");
        QVERIFY(count < 5000);
    }

    void comesBackByItself()
    {
        box->set({{"nat_introduction_server", "rendezvous6.example:7000"}, {"nat_introduction_token", QByteArray(64, 'a')}});
        startServer(); // at the second of that name's addresses
        startAgent();
        QVERIFY2(awaitAgent("rendezvous6.example:7000 refuses the box's token", 20000), agentLog);
        box->set({{"nat_introduction_token", tokenOfBox().toHex()}});
        hangUp(); // or it would look within 20 s
        QVERIFY2(awaitAgent("The settings have changed.") && awaitAgent("Registered at rendezvous6", 20000), agentLog);

        startServer(); // which knows nobody
        Caller peer;
        const auto isRung = [&] {
            peer.socket.writeDatagram(peer.call(noCookie, "x"), lan, 7000);
            return peer.await("\xa3").mid(17, 8) != noCookie; // the box's nonce
        };
        QVERIFY(!isRung());
        QVERIFY(QTest::qWaitFor(isRung, 25000));

        agentLog.clear();
        box->set({{"nat_introduction_server", ""}});
        hangUp();
        QVERIFY2(awaitAgent("joined no rendezvous server"), agentLog);
    }

    void relayThatHangsIsNoticed()
    {
        RelayWatch watch; // a clock that is set, ahead and back
        QCOMPARE(watch.setBack(5000s, 100s).count(), 0);
        QCOMPARE(watch.setBack(9000s, 110s).count(), 0);
        QCOMPARE(watch.setBack(9001s, 120s).count(), 0);
        QCOMPARE(watch.setBack(5421s, 140s).count(), 3600);
        QCOMPARE(watch.setBack(5441s, 160s).count(), 0);

        box->set({{"server_hostname", "192.0.2.1"}, {"nat_server_udpport", "7000"}, {"nat_server_update_interval", "1"}});
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        WebServer web;
        int asked = 0;
        const auto toldAfter = [&](int limit) { // ms; -1: not at all
            QElapsedTimer spent;
            spent.start();
            while (!spent.hasExpired(limit)) {
                hangUp(); // registers again, and looks
                if (awaitAgent("nat-relayd has not registered for ", 300))
                    return int(spent.elapsed());
                if (asked < 0 || !web.takeRequest().startsWith("HEAD / HTTP/1.0\r\n"))
                    continue;
                asked++;
                web.answer("HTTP/1.0 404 Not Found\r\n\r\n");
                if (!QTest::qWaitFor([&] { return web.isClosed(); }, 1000))
                    return -1;
            }
            return -1;
        };
        QVERIFY(toldAfter(5000) < 0 && asked == 0); // it has never been heard
        fake.relayAge = QByteArray("\0\5", 2);
        QVERIFY(toldAfter(700) < 0 && asked == 0);
        fake.relayAge = "\1\1";
        asked = -1; // the web server is there and says nothing
        QVERIFY(toldAfter(2500) < 0 && !web.takeRequest().isEmpty());
        asked = 0;
        fake.send("\xa4" + fake.nonce + '\3'); // it must have been answered for three intervals without a break
        QVERIFY(toldAfter(2500) < 0);
        const auto changeNetwork = [](const QString &how) {
            return QProcess::execute("ip", {"address", how, "192.0.2.9/24", "dev", "lan0"}) == 0;
        };
        QVERIFY(changeNetwork("add"));
        const int time = toldAfter(15000);
        QVERIFY2(time > 4000 && asked > 1, QByteArray::number(time)); // and the web server for one
        QVERIFY(changeNetwork("delete"));
        QVERIFY2(agentLog.contains(" s, while the web server answers. Restart it."), agentLog);
        agentLog.clear();
        QVERIFY(toldAfter(7000) < 0); // once an hour, whatever the server says
    }

    void secondAgentEnds()
    {
        FakeServer fake;
        startAgent();
        QVERIFY(fake.isRegistered());
        QProcess second;
        second.start(BUILD_DIR "/nat-relay-agent", QStringList());
        QVERIFY(second.waitForFinished(10000) && second.exitCode() == 1);
        const QByteArray told = second.readAllStandardError();
        QVERIFY2(told.count('\n') == 1 && told.contains("shares UDP port 5000 already"), told);
        agent->kill();
        QVERIFY(agent->waitForFinished());
        fake.nonce.clear();
        startAgent();
        QVERIFY(fake.isRegistered());
        agent.reset();
        const AgentName name(5000); // which anybody on the machine can take; he is not listened to for ever
        const int impostor = socket(AF_UNIX, SOCK_STREAM, 0);
        QVERIFY(::bind(impostor, reinterpret_cast<const sockaddr *>(&name.address), name.length) == 0 && ::listen(impostor, 1) == 0);
        second.start(BUILD_DIR "/nat-relay-admin", {"peers"});
        const int admin = accept(impostor, nullptr, nullptr);
        const QByteArray part(65536, 'x');
        int parts = 0;
        while (parts < 1000 && ::send(admin, part.constData(), size_t(part.size()), MSG_NOSIGNAL) > 0)
            parts++;
        QVERIFY(second.waitForFinished(10000) && second.exitCode() == 0 && parts < 1000);
        close(admin);
        close(impostor);
    }

    void sharedPortTakesNoDatagramOfAPeer()
    {
        constexpr int rounds = 2000;
        constexpr int each = 50;
        std::atomic<int> lost{rounds * each};
        std::atomic<bool> isOver{false};
        std::thread others([&] {
            QUdpSocket socket; // as the relay's
            socket.bind(QHostAddress(QHostAddress::Any), 5000, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint);
            Peer peer;
            for (int round = 0; round < rounds; round++) {
                for (int count = 0; count < each; count++)
                    peer.sendPlain("from a peer");
                for (int got = 0; got < each && (socket.hasPendingDatagrams() || socket.waitForReadyRead(200)); got++) {
                    socket.readDatagram(nullptr, 0);
                    lost--;
                }
            }
            isOver = true;
        });
        const auto rendezvous = introduction::addressOf(lan, 7000);
        const auto other = introduction::addressOf(QHostAddress(QHostAddress::LocalHostIPv6), 4000); // than the server's kind
        Peer knocked(peerUuid, "::1", 4000);
        SharedPort port;
        int opened = 0;
        int refusals = 0;
        for (; !isOver || opened < rounds; opened++) {
            refusals += port.open(5000, rendezvous).isEmpty() ? 0 : 1;
            if (opened % 8 == 0)
                port.sendTo(other, "knock");
        }
        others.join();
        QCOMPARE(lost.load() + refusals, 0);
        QVERIFY(knocked.receive() == "knock" && knocked.senderPort == 5000);
    }
};

QTEST_GUILESS_MAIN(AgentTest)
#include "agent_test.moc"
