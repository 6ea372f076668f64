// The programs as they are run: nginx, nat-relayd and nat-peer, each a process of its own.

#include "tests/support/programs.h"

#include <QRegularExpression>

class EndToEndTest : public QObject, Programs
{
    Q_OBJECT

    /// When the relay logged a line with this text, by the lines' own time stamps.
    QList<QDateTime> times(const QByteArray &text) const
    {
        QList<QDateTime> times;
        const auto lines = log.split('\n');
        for (const QByteArray &line : lines) {
            if (line.contains(text))
                times += QDateTime::fromString(line.left(23), "yyyy-MM-dd hh:mm:ss.zzz");
        }
        return times;
    }
    /// The shortest time from one try to write to the web server to the next, in ms: load makes others longer.
    qint64 retryPause() const
    {
        const auto tries = times("debug NAT: Failed to write to TCP port");
        qint64 shortest = 1000000;
        for (int i = 1; i < tries.size(); i++)
            shortest = std::min(shortest, tries.at(i - 1).msecsTo(tries.at(i)));
        return shortest;
    }

private slots:
    void init() { begin(); }
    void cleanup()
    {
        end();
        QVERIFY(nft({"flush ruleset"}));
    }

    void logKeepsToItsLevelAndPattern()
    {
        qunsetenv("QT_LOGGING_RULES");
        startRelay();
        Peer peer;
        QVERIFY(awaitLog([&] { // once its table is read, and long after the first lines of lower level
            return peer.send(peer.link(1)), log.contains("info NAT: Connection requested from ::ffff:127.0.0.1 on port ");
        }));
        static const QRegularExpression lines(R"(\A(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} info NAT: [^\n]+\n)+\z)");
        QVERIFY2(lines.match(QString::fromUtf8(log)).hasMatch(), log);
        qputenv("QT_MESSAGE_PATTERN", "<%{message}>");
        startRelay();
        qunsetenv("QT_MESSAGE_PATTERN");
        QVERIFY2(log.startsWith("<NAT Traverse started. UDP listening on 5000 & 5001>\n"), log);
    }

    void pagesArriveByteForByte()
    {
        const QByteArray page = Programs::page("line", 90000);
        write("pages/chunked", page);
        write("pages/short.html", "<p>short</p>");
        startNginx();
        startRelay();
        const auto [status, output, error] = fetch({"-i", "get", "/short.html"});
        QVERIFY2(status == 0 && output.startsWith("HTTP/1.1 200 OK\r\n") && output.endsWith("\r\n\r\n<p>short</p>"), error);
        QCOMPARE(std::get<0>(fetch({"get", "/missing"})), 0); // a complete response, whatever it says
        QCOMPARE(fetch({"--fail", "get", "/missing"}),
                 std::tuple(1, QByteArray(), QByteArray("nat-peer: the web server answers with status 404\n")));

        // A fifth of the datagrams is lost on their way in, to the relay and to the peer.
        QVERIFY(nft({"add table inet loss; add chain inet loss in { type filter hook input priority 0; };"
                     "add rule inet loss in udp dport 5000 numgen random mod 100 < 20 counter drop;"
                     "add rule inet loss in udp sport 5000 numgen random mod 100 < 20 counter drop"}));
        for (const auto &[path, body] : {std::pair("/chunked", page), std::pair("/short.html", QByteArray("<p>short</p>"))}) {
            const auto [result, arrived, complaint] = fetch({"get", path});
            QVERIFY2(result == 0 && arrived == body && complaint.isEmpty(), complaint + QByteArray::number(arrived.size()));
        }
        QByteArray rules;
        QVERIFY(nft({"list table inet loss"}, &rules));
        QVERIFY2(rules.count("counter packets") == 2 && !rules.contains("packets 0"), rules); // both ways did lose
    }

    void lostConfirmationsCostLittle()
    {
        const QByteArray page = Programs::page("line", 10000);
        write("pages/page", page);
        startNginx();
        startRelay();
        // None of a request arrives, and of the packets every other one.
        QVERIFY(nft({"add table inet loss; add chain inet loss in { type filter hook input priority 0; };"
                     "add rule inet loss in udp sport 5000 udp length 89 drop;"
                     "add rule inet loss in udp dport 5000 udp length 98 numgen inc mod 2 0 drop;"
                     "add rule inet loss in udp sport 5000 udp length > 7000 counter"}));
        const auto [status, arrived, complaint] = fetch({"get", "/page"});
        QVERIFY2(status == 0 && arrived == page, complaint);
        QByteArray rules;
        QVERIFY(nft({"list table inet loss"}, &rules));
        static const QRegularExpression counter("counter packets (\\d+)");
        const int sent = counter.match(QString::fromUtf8(rules)).captured(1).toInt();
        const int packets = page.size() / 7000;
        QVERIFY2(sent >= packets && sent <= packets + 3, rules); // hardly one came again
    }

    void burstOpensWhatARouterKeepsClosed()
    {
        write("pages/page.html", "through");
        startNginx();
        startRelay();
        QVERIFY(nft({"add table inet router; add chain inet router in { type filter hook input priority 0; };"
                     "add rule inet router in udp dport 5000 ct state new counter drop"})); // but what the box began
        const QStringList words{"--udp-port", "4001", "--timeout", "8", "get", "/page.html"};
        QProcess peer;
        startPeer(&peer, words);
        QByteArray rules;
        QVERIFY(QTest::qWaitFor([&] { return nft({"list table inet router"}, &rules), !rules.contains("packets 0"); }, 5000));
        box->sql("UPDATE nat_traverse SET status = 2"); // as the rendezvous asks for
        const bool isThrough = finish(&peer) == std::tuple(0, QByteArray("through"), QByteArray());
        log += relay->readAllStandardError();
        const QByteArray firstLog = log;
        box->sql("UPDATE nat_traverse SET status = 2");
        startRelay(); // which bursts again at once; a peer with another key can tell why it understands nothing
        write("peer.ini", QByteArray(config).replace(testKey.toHex(), QByteArray(32, '1')));
        const auto [status, output, error] = fetch({"--udp-port", "4001", "--timeout", "5", "get", "/page.html"});
        QVERIFY(isThrough);
        QVERIFY2(status == 1 && error.contains("what comes back cannot be deciphered: key and iv must be those of the box"), error);
        QVERIFY2(firstLog.contains(" Try: 0") && firstLog.contains("Connection requested from ::ffff:127.0.0.1 on port 4001"), firstLog);
    }

    void boxIsDiscovered()
    {
        write("pages/page.html", "found");
        startNginx();
        startRelay();
        const QByteArray found = "192.0.2.1 UDP 5000 TCP 8088 " + boxUuid + '\n';
        QVERIFY(fetch({"discover"}) == std::tuple(0, found, QByteArray())); // by broadcast
        QVERIFY(fetch({"discover", "127.0.0.1:5001"}) == std::tuple(0, QByteArray(found).replace("192.0.2.1", "127.0.0.1"), QByteArray()));
        QVERIFY(fetch({"discover", "127.0.0.1:5999"}) == std::tuple(1, QByteArray(), QByteArray("nat-peer: no box answered within 3 s\n")));
        write("peer.ini", QByteArray(config).replace("address=127.0.0.1:5000\n", ""));
        QVERIFY(fetch({"get", "/page.html"}) == std::tuple(0, QByteArray("found"), QByteArray()));
        relay.reset();
        const auto [status, output, error] = fetch({"--timeout", "1", "get", "/page.html"});
        QVERIFY2(status == 1 && output.isEmpty() && error.contains("no answer from the box on the local network"), error);
    }

    void downWebServerOnlyDelays()
    {
        write("pages/page.html", "there at last");
        box->set({{"nat_server_update_interval", "1"}});
        startRelay();
        QProcess peer;
        startPeer(&peer, {"get", "/page.html"});
        QVERIFY(awaitLog([this] { return log.contains("debug NAT: Failed to write to TCP port"); }));
        const int registrations = log.count("Send UDP message to server");
        QVERIFY(awaitLog([this] { return log.count("debug NAT: Failed to write to TCP port") == 21; }));
        QVERIFY2(retryPause() >= 99 && retryPause() < 150, log);
        QCOMPARE(log.count("Send UDP message to server"), registrations); // the duties behind it wait too, longer than their period
        startNginx();
        QElapsedTimer timer;
        timer.start();
        QVERIFY(finish(&peer) == std::tuple(0, QByteArray("there at last"), QByteArray()) && timer.elapsed() < 1000);
        log += relay->readAllStandardError();
        QCOMPARE(log.count("error NAT: Failed to connect to local TCP port 80 (UDP Slot)"), 1);
        QCOMPARE(log.count("error NAT: "), 2); // and the link's own word for the refusal
    }

    void mutedWebServerHoldsUpAsLongAsItMay()
    {
        QVERIFY(nft({"add table inet mute; add chain inet mute in { type filter hook input priority 0; };"
                     "add rule inet mute in tcp dport 80 drop"}));
        startRelay();
        QVERIFY(QTest::qWaitFor([&] { return awaitLog([] { return true; }), log.contains("Worker loop started"); }, 60000));
        QProcess peer;
        startPeer(&peer, {"get", "/"});
        QVERIFY(awaitLog([this] { return log.count("debug NAT: Failed to write to TCP port") > 10; }));
        const auto lag = [this](const char *from, const char *to) { return times(from).value(0).msecsTo(times(to).value(0)); };
        const qint64 first = lag("NAT Traverse started", "Worker loop started");
        const qint64 later = lag("Confirmation UDP msg sent", "error NAT: Failed to connect to local TCP port 80 (UDP Slot)");
        QVERIFY2(first >= 30000 && first < 40000 && later >= 2000 && later < 4000, log);
        QVERIFY2(retryPause() >= 99 && retryPause() < 150, log);
        peer.kill();
        peer.waitForFinished();
    }

    void restartedRelayAnswersAll()
    {
        WebServer web;
        startRelay();
        QProcess peer;
        startPeer(&peer, {"get", "/"});
        const auto isAsked = [&] { return web.takeRequest().startsWith("GET / HTTP/1.1\r\n"); };
        QVERIFY(QTest::qWaitFor(isAsked, 10000));
        startRelay(); // it knows nothing of the request; the peer reminds it
        QVERIFY(QTest::qWaitFor(isAsked, 15000));
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
        QCOMPARE(std::get<1>(finish(&peer)), "ok");
    }

    void shortResponseIsNoSuccess()
    {
        const QByteArray chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
        const QList<std::tuple<QByteArray, QByteArray, QByteArray>> rows{
            {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort", "short", "no answer to the request"}, // for the rest
            {"HTTP/1.1 200 OK\r\n\r\nshort", "short", "does not say how long it is: 5 bytes came"},
            {"HTTP/1.1 200 OK\r\nServer: x", "", "the response ends within its header"},
            {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n", "", "cut short, the rest does not come"}, // the relay waits too
            {"HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n5\r\nshort\r\n", "short", "the relay follows chunks only under"},
            {chunked + "5\r\nshort\r\n", "short", "cut short, the rest does not come"},
            {chunked + "0\r\n", "", "cut short, the rest does not come"},
            {chunked + "five\r\nshort\r\n0\r\n\r\n", "", "the answer is no HTTP response: bad chunk"},
            {"HTTP/1.1 103 Early Hints\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole", "whole", ""},
            {chunked + "5;x=y\r\nwhole\r\n0\r\n\r\n", "whole", ""}};
        for (const auto &[response, body, complaint] : rows) {
            WebServer web;
            startRelay();
            QProcess peer;
            startPeer(&peer, {"--timeout", "2", "get", "/"});
            const auto isOver = [&, &told = response] { // the same as often as it asks for all
                const QByteArray request = web.takeRequest();
                if (!request.isEmpty() && !request.contains("\r\nRange: "))
                    web.answer(told);
                return peer.state() == QProcess::NotRunning;
            };
            QVERIFY(QTest::qWaitFor(isOver, 20000));
            const auto [status, output, error] = finish(&peer);
            QVERIFY2(output == body, response + error + output);
            QVERIFY2(status == int(!complaint.isEmpty()) && error.contains(complaint) && error.count('\n') == status, error);
        }
    }

    void answerThatIsNoneIsAskedForAgain()
    {
        for (const bool isOnce : {true, false}) { // what is left of another's page, and a service that is no web server
            WebServer web;
            web.probeAnswer = isOnce ? web.probeAnswer : "SSH-2.0-box\r\n";
            int asked = 0;
            startRelay();
            QProcess peer;
            startPeer(&peer, {"get", "/"});
            const auto isOver = [&] {
                if (!web.takeRequest().isEmpty())
                    web.answer(isOnce && ++asked > 1 ? QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole") : "SSH-2.0-box\r\n");
                return peer.state() == QProcess::NotRunning;
            };
            QVERIFY(QTest::qWaitFor(isOver, 20000));
            const auto [status, output, error] = finish(&peer);
            QVERIFY2(isOnce ? output == "whole" : error.contains("the answer is no HTTP response: bad version"), error);
            QCOMPARE(status, isOnce ? 0 : 1);
        }
    }

    void mistakesAreExplainedInALine()
    {
        const QStringList get{"--timeout", "1", "get", "/"};
        const QByteArray key = testKey.toHex();
        startRelay();
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress(QHostAddress::LocalHost), 4000));
        const QList<std::tuple<QByteArray, QByteArray, QStringList, QByteArray>> rows{
            {key, QByteArray(32, '1'), get, "no answer from the box"},
            {key, key.left(31), get, "key in [box] must be 32 hexadecimal digits"},
            {testIv.toHex(), QByteArray(32, '0'), get, "iv in [box] must hold no byte 00"},
            {"127.0.0.1:5000", "127.0.0.1", get, "the box's address must be HOST:PORT like box.example.net:5000"},
            {"127.0.0.1:5000", "nosuch.invalid:5000", get, "no address found for nosuch.invalid, the box's host"},
            {peerUuid, "me", get, "uuid in [peer] must be a UUID in braces"},
            {peerUuid, boxUuid, get, "must be the peer's own"},
            {"\n", "\n", {"--config", "/no/such.ini", "get", "/"}, "/no/such.ini: No such file or directory"},
            {"\n", "\n", {"/"}, "use nat-peer --config peer.ini get /path"},
            {"\n", "\n", {"--listen", "8080", "serve"}, "--listen must be an address and a port, like 127.0.0.1:8080"},
            {"\n", "\n", {"--listen", "127.0.0.1:4000", "serve"}, "cannot listen on 127.0.0.1:4000: The bound address is already in use"},
            {"\n", "\n", {"--udp-port", "5000", "get", "/"}, "UDP port 5000 cannot be used"},
            {"\n", "\n", {"--queue", "x", "get", "/"}, "--queue must be a number from 1 to 10000"},
            {"\n", "\n", {"discover", "here"}, "the address must be IP or IP:PORT like 192.0.2.7:5000"},
            {"\n", "\n", {"get", "/\r\nHost: x"}, "the path must begin with /"},
            {"\n", "\n", {"get", "/" + QString(66000, 'x')}, "the path is too long"}};
        for (const auto &[right, wrong, words, complaint] : rows) {
            write("peer.ini", QByteArray(config).replace(right, wrong));
            const auto [status, output, error] = fetch(words);
            QVERIFY2(status == 1 && output.isEmpty() && error.startsWith("nat-peer: ") && error.count('\n') == 1, error);
            QVERIFY2(error.contains(complaint) && !error.contains(key), error);
        }
    }
};

QTEST_GUILESS_MAIN(EndToEndTest)
#include "endtoend_test.moc"
