// nat-rendezvousd as it is run, and coturn as it sets that up.

// clazy:excludeall=non-pod-global-static

#include "tests/support/introduced.h"

#include <QFile>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

class ServerTest : public QObject
{
    Q_OBJECT

private slots:
    void programSetsUpAndServes()
    {
        const QTemporaryDir folder;
        const QStringList config{"--config", folder.filePath("made/nat-rendezvousd.conf")};
        const auto run = [](const QStringList &words) {
            QProcess program;
            program.start(BUILD_DIR "/nat-rendezvousd", words);
            program.waitForFinished();
            return QByteArray::number(program.exitCode()) + ' ' + program.readAllStandardError() + program.readAllStandardOutput();
        };
        const QByteArray unset = run(config + QStringList{"token", boxText});
        QVERIFY(unset.startsWith("1 nat-rendezvousd: ") && unset.count('\n') == 1 && unset.contains("not readable"));
        const QStringList setup{"setup", "--host", "rendezvous.example", "--folder", folder.filePath("made")};
        const QString longName = QString(63, 'h') + ".example";
        const QStringList setUpLong{"setup", "--host", longName, "--folder", folder.filePath("long")};
        QVERIFY(run(setUpLong).contains("certificate.pem and "));
        const QString ipv6 = folder.filePath("ipv6/nat-rendezvousd.conf");
        QVERIFY(run({"setup", "--host", "[2001:db8::7]", "--folder", folder.filePath("ipv6")}).startsWith("0 Wrote "));
        QVERIFY(run({"--config", ipv6, "token", boxText}).startsWith("0 [2001:db8::7]:7000 "));
        const QString first = folder.filePath("long/nat-rendezvousd.conf");
        QVERIFY(QFile::remove(first) && run(setUpLong).contains("turnserver.conf exists already") && !QFile::exists(first));
        QVERIFY(run(setup).startsWith("0 Wrote "));
        QVERIFY(run(setup).contains("exists already"));
        const auto read = [&](const QString &name) {
            QFile file(folder.filePath("made/" + name));
            file.open(QIODevice::ReadOnly);
            return file.permissions() & (QFile::ReadOther | QFile::WriteOther) ? QByteArray() : file.readAll();
        };
        const QByteArray configuration = read("nat-rendezvousd.conf");
        const QByteArray made = configuration.mid(configuration.indexOf("secret=") + 7, 64);
        const QByteArray token = hkdf(QByteArray::fromHex(made), "box" + boxUuid).toHex();
        QCOMPARE(run(config + QStringList{"token", boxText}), "0 rendezvous.example:7000 " + token + '\n');
        QVERIFY(run(config + QStringList{"token", "box"}).contains("must be 36 characters"));
        QVERIFY(read("turnserver.conf").contains("use-auth-secret"));

        QProcess server;
        QProcess::execute("ip", {"address", "add", "198.51.100.7", "dev", "lo"});
        server.start(BUILD_DIR "/nat-rendezvousd", config + QStringList{"serve"});
        QVERIFY(QTest::qWaitFor([&] { return server.readAllStandardError().contains("ready"); }, 10000));
        quint32 count = 0;
        for (const char *address : {"127.0.0.1", "::1", "198.51.100.7"}) {
            count++;
            QUdpSocket box; // takes nothing but what comes from that address
            box.bind(QHostAddress(address == QByteArray("::1") ? address : "127.0.0.1"));
            box.connectToHost(QHostAddress(address), 7000);
            box.write(registration(7, count, noCookie));
            QVERIFY2(box.waitForReadyRead(5000), address);
            QByteArray challenge(100, '\0');
            challenge.resize(static_cast<int>(box.read(challenge.data(), challenge.size())));
            box.write(registration(7, count, challenge.mid(9, 8), hkdf(QByteArray::fromHex(made), "box" + boxUuid)));
            QVERIFY(box.waitForReadyRead(5000));
            box.read(challenge.data(), challenge.size());
            QVERIFY(challenge.startsWith('\xa2'));
        }
        // The same by TCP, in pieces; who sends what is none is cut off.
        const auto framed = [](const QByteArray &bytes) { return bytesOf(quint32(bytes.size())).right(2) + bytes; };
        QTcpSocket peer;
        QByteArray heard;
        peer.connectToHost("::1", 7000);
        const auto say = [&](const QByteArray &bytes, int answer) {
            heard.clear();
            const QByteArray message = framed(bytes);
            for (const char byte : message) {
                peer.write(&byte, 1);
                peer.waitForBytesWritten(1000);
            }
            return QTest::qWaitFor([&] { return heard += peer.readAll(), heard.size() >= answer; }, 5000);
        };
        QVERIFY(say(call(noCookie), 2 + 25));
        QCOMPARE(heard.left(11), framed("\xa3" + callId + QByteArray(16, 'x')).left(2) + "\xa3" + callId);
        QVERIFY(say(call(heard.mid(11, 8)), 2 + 10));
        QCOMPARE(heard, framed("\xa4" + callId + '\1')); // it has another secret
        std::vector<std::unique_ptr<QTcpSocket>> flood;  // of one source, which harms no other
        while (flood.size() < 510) {
            flood.push_back(std::make_unique<QTcpSocket>());
            flood.back()->connectToHost("127.0.0.1", 7000);
            QVERIFY(flood.back()->waitForConnected());
        }
        flood.back()->write(framed(call(noCookie)));
        QVERIFY(flood.back()->waitForReadyRead()); // by now all others have come in
        QVERIFY(say(call(noCookie), 2 + 25));
        QTRY_COMPARE(flood.front()->state(), QAbstractSocket::UnconnectedState);
        peer.write("GET / HTTP/1.1\r\n\r\n");
        QTRY_COMPARE(peer.state(), QAbstractSocket::UnconnectedState);
        QTcpSocket metrics;
        metrics.connectToHost("127.0.0.1", 9700);
        metrics.write("GET /metrics HTTP/1.0\r\n\r\n");
        QTRY_VERIFY(metrics.state() == QAbstractSocket::UnconnectedState);
        const QByteArray shown = metrics.readAll();
        QVERIFY(shown.contains("\nnat_rendezvousd_registrations_total 3\n") && shown.contains("\nnat_rendezvousd_boxes 1\n"));
        QVERIFY(
            run(config + QStringList{"serve", "--listen", "127.0.0.1:7000", "--metrics", ""}).contains("cannot listen on 127.0.0.1:7000"));
        server.terminate();
        QVERIFY(server.waitForFinished(5000) && server.exitCode() == 0);
    }

    /// coturn as it is shipped, asked by its own client for the way to an address.
    void carriedDatagramsReachTheInternetAlone()
    {
        const auto run = [](const QStringList &words, int time = 20000) {
            QProcess program;
            program.setProcessChannelMode(QProcess::MergedChannels);
            program.start(words.first(), words.mid(1));
            if (!program.waitForFinished(time))
                program.kill();
            program.waitForFinished();
            return program.readAll();
        };
        const QByteArrayList ours{"203.0.114.1", "203.0.114.2", "2001:470:1::1", "2001:470:1::2"};
        for (const QByteArray &address : ours)
            run({"ip", "address", "add", address, "dev", "lo"});
        const QTemporaryDir folder;
        const QString server = BUILD_DIR "/nat-rendezvousd";
        run({server, "setup", "--host", ours.first(), "--folder", folder.path()});
        QFile configuration(folder.filePath("turnserver.conf"));
        QVERIFY(configuration.open(QIODevice::ReadOnly));
        const QByteArray text = configuration.readAll();
        const QByteArray key = text.mid(text.indexOf("auth-secret=") + 12, 64);
        QProcess coturn;
        coturn.setWorkingDirectory(folder.path());
        coturn.start("turnserver", {"-c", configuration.fileName(), "--pidfile", folder.filePath("pid"), "--listening-ip", ours.at(0),
                                    "--relay-ip", ours.at(0), "--relay-ip", ours.at(2)});
        QProcess peer; // of coturn's, an echo
        peer.start("turnutils_peer", {"-L", ours.at(1), "-L", ours.at(3)});
        const auto ask = [&](const QByteArray &target) {
            const QByteArray user = QByteArray::number(QDateTime::currentSecsSinceEpoch() + 60) + ':' + target;
            QStringList words{"turnutils_uclient",
                              "-v",
                              "-u",
                              user,
                              "-w",
                              hmac(user, key, QCryptographicHash::Sha1).toBase64(),
                              "-e",
                              target,
                              "-n",
                              "1",
                              "-m",
                              "1",
                              "-X"};
            return run(words + (target.contains(':') ? QStringList{"-x"} : QStringList()) + QStringList{ours.at(0)});
        };
        for (const int ourPeer : {1, 3}) // one datagram goes there and back, and may be lost
            QVERIFY(QTest::qWaitFor([&] { return ask(ours.at(ourPeer)).contains("tot_recv_msgs=1"); }, 30000));
        for (const char *denied :
             {"127.0.0.1", "10.1.2.3", "172.31.0.1", "192.168.1.1", "100.64.0.1", "169.254.169.254", "0.0.0.0", "::1", "::", "::127.0.0.1",
              "::ffff:127.0.0.1", "::ffff:203.0.114.2", "fe80::1", "fd00::1", "64:ff9b::7f00:1", "2002:7f00:1::1"}) {
            const QByteArray said = ask(denied);
            QVERIFY2(said.contains("error 403 (Forbidden IP)") && !said.contains("tot_recv_msgs=1"), denied);
        }
        for (QProcess *program : {&coturn, &peer}) {
            program->kill();
            QVERIFY(program->waitForFinished(10000));
        }
    }
};

QTEST_GUILESS_MAIN(ServerTest)
#include "server_test.moc"
