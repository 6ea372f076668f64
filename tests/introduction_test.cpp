// nat-peer as it is run, called in by a real agent and server, or by what lies in their place.

// clazy:excludeall=non-pod-global-static

#include "tests/support/introducedbox.h"

#include <QScopeGuard>

class IntroductionTest : public QObject, IntroducedBox
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void peersHeedNothingForged()
    {
        QUdpSocket rendezvous;
        QUdpSocket home; // where a box would be
        QVERIFY(rendezvous.bind(lan, 7000) && home.bind(lan, 5000));
        write("peer.ini", introduced(peerUuid));
        const Process peer(new QProcess);
        startPeer(peer.get(), {"get", "/"});
        Caller caller; // the same one's bytes
        quint16 port = 0;
        const auto nextCall = [&] {
            while (rendezvous.hasPendingDatagrams())
                rendezvous.readDatagram(nullptr, 0);
            QByteArray data(2000, '\0');
            const bool isThere = QTest::qWaitFor([&] { return rendezvous.hasPendingDatagrams(); }, 10000);
            data.resize(isThere ? int(rendezvous.readDatagram(data.data(), data.size(), nullptr, &port)) : 0);
            return data;
        };
        caller.id = nextCall().mid(33, 8);
        const auto answer = [&](const QByteArray &seen) {
            const auto sealed = [&](const QByteArray &items, char whom, const introduction::Key &key) {
                return QByteArray::fromStdString(introduction::seal(items.toStdString(), caller.context(whom), key));
            };
            const QByteArray key = hkdf(hkdf(tokenOfBox(), "peer" + bytesOfUuid(peerUuid)), "answer");
            const QByteArray byServer = sealed(item(SeenAddress, seen), 3, *introduction::keyOf(key.toHex().toStdString()));
            return "\xa8" + caller.id + bytesOf(quint16(byServer.size())) + byServer + sealed(item(Verdict, welcome), 2, caller.key());
        };
        const QByteArray good = answer(address(lan, 5000));
        const int readByPeer = 11 + qFromBigEndian<quint16>(good.constData() + 9);
        for (int place = 0; place < readByPeer; place++) {
            QByteArray forged = good;
            forged[place] = static_cast<char>(forged.at(place) ^ 1);
            rendezvous.writeDatagram(forged, lan, port);
            rendezvous.writeDatagram(good.left(place), lan, port);
        }
        QUdpSocket().writeDatagram(good, lan, port); // by somebody else
        QCOMPARE(nextCall().mid(33, 8), caller.id);  // goes on asking
        QVERIFY(!home.hasPendingDatagrams());
        rendezvous.writeDatagram(good, lan, port);
        QVERIFY(QTest::qWaitFor([&] { return home.hasPendingDatagrams(); }, 10000));
        int calls = 0;                     // a server that answers them with challenges on and on is left alone
        caller.id = nextCall().mid(33, 8); // as knocking opens nothing
        while (calls < 200 && QTest::qWaitFor([&] { return rendezvous.hasPendingDatagrams(); }, 1500)) {
            calls++;
            rendezvous.readDatagram(nullptr, 0);
            rendezvous.writeDatagram("\xa3" + caller.id + bytesOf(quint64(calls)) + noCookie, lan, port);
        }
        QVERIFY2(calls > 80 && calls < 110, QByteArray::number(calls));
    }

    void peersAreCarriedByTlsWhereNothingElsePasses()
    {
        QProcess::execute(BUILD_DIR "/nat-rendezvousd", {"setup", "--host", "192.0.2.1", "--folder", path("made")});
        QFile made(path("made/turnserver.conf"));
        QVERIFY(made.open(QIODevice::ReadOnly));
        const QByteArray text = made.readAll();
        startServer("turn=192.0.2.1:3478\nturn-tls-port=5349\nturn-secret=" + text.mid(text.indexOf("auth-secret=") + 12, 64) + '\n');
        const Process coturn(new QProcess); // which carries to this network as it is told, and from ports that no peer has
        coturn->start("turnserver", {"-c", made.fileName(), "--pidfile", path("pid"), "--listening-ip", "192.0.2.1", "--relay-ip",
                                     "192.0.2.1", "--allowed-peer-ip", "192.0.2.1", "--min-port", "20000", "--max-port", "20100"});
        const auto openAgain = qScopeGuard([] { nft({"delete table inet blocked"}); });
        QVERIFY(nft({"add table inet blocked; add chain inet blocked in { type filter hook input priority 0; };"
                     "add rule inet blocked in udp sport >= 32768 drop; add rule inet blocked in tcp dport 3478 reject with tcp reset"}));
        startRelay();
        startAgent();
        QVERIFY2(awaitAgent("Registered at"), agentLog);
        write("peer.ini", introduced(peerUuid));
        const auto [status, told, error] = fetch({"status"});
        QVERIFY2(status == 0 && told.startsWith("The box is reached carried by 192.0.2.1 over TLS\n") && error.isEmpty(), told + error);
        QProcess admin;
        admin.start(BUILD_DIR "/nat-relay-admin", {"peers"});
        QVERIFY(admin.waitForFinished());
        const QByteArray shown = admin.readAllStandardOutput(); // the box has sent nothing to where it called from
        QVERIFY2(shown.contains("  carried for ") && shown.contains(" ago by TCP\n"), shown);
        // A packet that does not come for 2.5 s has the path opened anew, and still comes on the old one.
        write("pages/page", page("line", 2000));
        startNginx();
        QVERIFY(nft({"add rule inet blocked in udp sport 5000 udp length > 7000 numgen inc mod 1000 1-5 counter drop"}));
        const auto [result, arrived, complaint] = fetch({"get", "/page"});
        QByteArray rules;
        QVERIFY(nft({"list table inet blocked"}, &rules));
        QVERIFY2(result == 0 && arrived == page("line", 2000) && rules.contains("packets 5 "), complaint + rules);
        log += relay->readAllStandardError();
        QCOMPARE(log.count("Write to TCP port: GET /page "), 1);
        startServer("turn=\"[2001:db8::7]:3478\"\nturn-secret=x\n"); // where no way leads, as is known at once
        startAgent();
        QVERIFY2(awaitAgent("Registered at"), agentLog);
        const Process alone(new QProcess);
        startPeer(alone.get(), {"status"});
        QByteArray said;
        const QByteArray reason = "2001:db8::7 carries nothing: it cannot be reached";
        QVERIFY2(QTest::qWaitFor([&] { return said += alone->readAllStandardError(), said.contains(reason); }, 15000), said);
    }

    /// Real ones, of whom each has something that is not right any more.
    void peersAreToldWhyTheyStayOut()
    {
        startServer();
        startAgent();
        QVERIFY2(awaitAgent("Registered at"), agentLog);
        const auto wrong = [](QByteArray ini, const QByteArray &name) {
            return ini.replace(ini.lastIndexOf(name) + name.size(), 64, QByteArray(64, 'a'));
        };
        const QByteArray added = introduced(otherUuid);
        box->addPeer(otherUuid);
        const QList<std::pair<QByteArray, QByteArray>> cases{
            {introduced(strangerUuid), "the box refuses this peer: it has been removed there"},
            {wrong(added, "\ntoken="), "does not take this peer's token"}, // as when the server has a new secret
            {wrong(added, "\nkey="), "configuration still the one that was handed over?"},
            {QByteArray(added).replace(boxUuid, "{99999999-0000-4000-8000-00000000000c}"), "does not know the box"}};
        std::vector<Process> peers; // at the same time, as most try for a minute
        for (const auto &[ini, complaint] : cases) {
            const QString file = path(QString::number(peers.size()));
            write(QString::number(peers.size()), ini);
            peers.emplace_back(new QProcess);
            peers.back()->start(BUILD_DIR "/nat-peer", {"--config", file, "--punch-rate", "100", "get", "/"});
        }
        for (size_t index = 0; index < peers.size(); index++) {
            const auto [status, output, error] = finish(peers[index].get());
            QVERIFY2(status == 1 && output.isEmpty() && error.contains(cases.at(int(index)).second), error);
        }
        QCOMPARE(row(otherUuid), "127.0.0.1 4000 4001 0");
    }
};

QTEST_GUILESS_MAIN(IntroductionTest)
#include "introduction_test.moc"
