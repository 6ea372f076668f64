// nat-peer as a proxy: what clients get, whatever the relay and the web server do.

#include "tests/support/proxied.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QScopeGuard>

class ProxyTest : public QObject, Proxied
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup()
    {
        proxy.reset();
        end();
    }

    void longPagesArriveWhole()
    {
        const QByteArray page = Programs::page("line", 90000);
        write("pages/page.txt", page);
        write("pages/chunked", page);
        write("pages/short", "short");
        startNginx();
        startRelay();
        startProxy({"--verbose"});
        for (const QByteArray &target : {QByteArray("/page.txt"), QByteArray("/chunked")}) {
            QElapsedTimer timer;
            timer.start();
            const auto client = ask("GET " + target + " HTTP/1.0\r\n\r\n");
            QVERIFY(QTest::qWaitFor([&] { return client->bytesAvailable() > 0; }, 60000));
            const qint64 toFirst = timer.elapsed();
            const QByteArray response = answer(client);
            QVERIFY2(response.startsWith("HTTP/1.1 200 OK\r\n") && toFirst * 3 < timer.elapsed(), response.left(500));
            QVERIFY(body(response) == page);
        }
        const QByteArray chunks = answer(get("/chunked"));
        QVERIFY(chunks.contains("\r\nTransfer-Encoding: chunked\r\n") && chunks.endsWith("\n\r\n0\r\n\r\n"));
        const QByteArray part = answer(ask("GET /page.txt HTTP/1.1\r\nHost: x\r\nRange: bytes=5-300004\r\nConnection: close\r\n\r\n"));
        QVERIFY2(part.startsWith("HTTP/1.1 206 ") && body(part) == page.mid(5, 300000), part.left(500));
        const auto download = get("/page.txt"); // between its parts others have their turn, pages before most pictures
        QVERIFY(QTest::qWaitFor([&] { return download->bytesAvailable() > 0; }, 60000));
        std::vector<std::unique_ptr<QTcpSocket>> others(14);
        for (size_t i = 0; i < others.size(); i++)
            others[i] = ask(QByteArray("GET /short HTTP/1.0\r\nAccept: ") + (i < 6 ? "image/png" : "text/html") + "\r\n\r\n");
        const auto answered = [&others](int from, int to) {
            return std::count_if(others.begin() + from, others.begin() + to,
                                 [](const auto &client) { return client->state() == QAbstractSocket::UnconnectedState; });
        };
        QVERIFY(QTest::qWaitFor([&] { return answered(6, 14) > 0; }, 60000) && answered(0, 6) < 6);
        QVERIFY(QTest::qWaitFor([&] { return answered(0, 6) > 0; }, 60000) && answered(6, 14) < 8); // nobody starves
        QVERIFY(QTest::qWaitFor([&] { return answered(0, 14) == 14; }, 60000));
        QVERIFY(download->state() == QAbstractSocket::ConnectedState && others.front()->readAll().endsWith("short"));
        QVERIFY(body(answer(download)) == page);
        const QByteArray told = proxy->readAllStandardError();
        QVERIFY(told.contains("/chunked: 200 in chunks, so that others had to wait;") && told.contains("/page.txt: 200;"));
        QVERIFY(answer(ask("HEAD /page.txt HTTP/1.0\r\n\r\n")).contains("Content-Length: " + QByteArray::number(page.size())));
    }

    void applicationsComeThroughNginx()
    {
        WebServer application(3000); // answers with a length, and knows no ranges
        QFile demo(SOURCE_DIR "/scripts/nginx.conf");
        QVERIFY(demo.open(QIODevice::ReadOnly));
        write("nginx.conf", demo.readAll().split('{').mid(0, 3).join('{').replace("    server ", "    include \"" SOURCE_DIR
                                                                                                 "/scripts/nginx-site.conf\";\n}\n"));
        startNginx(path("nginx.conf"));
        startRelay();
        startProxy();
        const QByteArray page = Programs::page("line", 30000);
        const QByteArray length = "Content-Length: " + QByteArray::number(page.size()) + "\r\n\r\n";
        for (const auto &[method, field] : {std::pair("GET", ""), std::pair("POST", "Content-Encoding: gzip\r\n")}) {
            const auto client = ask(QByteArray(method) + " / HTTP/1.0\r\nContent-Length: 0\r\n\r\n");
            QVERIFY(request(application).startsWith(method));
            application.answer(QByteArray("HTTP/1.1 200 OK\r\n") + field + length + page);
            QVERIFY2(body(answer(client)) == page, method);
        }
        const auto stream = get("/"); // ends at once, for the application and the relay too
        QVERIFY(!request(application).isEmpty());
        application.answer("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nTransfer-Encoding: chunked\r\n\r\n3\r\n: \n\r\n");
        QVERIFY(answer(stream).startsWith("HTTP/1.1 501 ") && QTest::qWaitFor([&] { return application.isClosed(); }, 5000));
    }

    void networksMayDropFragments()
    {
        const QByteArray page = Programs::page("line", 2500);
        write("pages/page.txt", page);
        write("pages/chunked", page); // without length and ranges
        startNginx();
        startRelay();
        const auto reset = qScopeGuard([] { nft({"flush ruleset"}), QProcess::execute("ip", {"link", "set", "lo", "mtu", "65536"}); });
        QCOMPARE(QProcess::execute("ip", {"link", "set", "lo", "mtu", "1500"}), 0);
        startProxy();
        QVERIFY(body(answer(get("/page.txt"))) == page && awaitLog([] { return true; }));
        const QByteArray told = proxy->readAllStandardError();
        QVERIFY2(!log.contains("HEAD /page.txt ") && !told.contains("fragments"), told); // nothing is asked ahead where they pass

        QVERIFY(nft({"add table ip raw; add chain ip raw in { type filter hook prerouting priority -450; };"
                     "add rule ip raw in ip frag-off & 0x3fff != 0 drop"}));
        startProxy();
        const QByteArray ask206 = "GET /page.txt HTTP/1.1\r\nHost: x\r\nConnection: close\r\nRange: bytes=";
        const QByteArray got = answer(get("/page.txt"));
        QVERIFY2(got.startsWith("HTTP/1.1 200 OK\r\n") && body(got) == page && !got.contains("Content-Range"), got.left(500));
        for (const auto &[range, first, length] : {std::tuple("9-4000", 9, 3992), std::tuple("-3000", page.size() - 3000, 3000)}) {
            const QByteArray part = answer(ask(ask206 + range + "\r\n\r\n"));
            QVERIFY2(part.startsWith("HTTP/1.1 206 ") && body(part) == page.mid(first, length), part.left(500));
            QVERIFY2(part.contains("bytes " + QByteArray::number(first) + '-' + QByteArray::number(first + length - 1) + '/'),
                     part.left(500));
        }
        QElapsedTimer timer;
        timer.start();
        const QByteArray refused = answer(get("/chunked"));
        QVERIFY2(refused.startsWith("HTTP/1.1 502 ") && refused.contains("drops IP fragments") && timer.elapsed() < 2000, refused);
        QVERIFY(answer(get("/" + QByteArray(2000, 'x'))).startsWith("HTTP/1.1 413 "));
        QCOMPARE(proxy->readAllStandardError().count("this network drops IP fragments: long pages"), 1);
    }

    void fieldsOfOneConnectionStayThere()
    {
        WebServer web;
        startRelay();
        startProxy();
        const auto client = ask("POST http://box.example/form?a=b HTTP/1.1\r\nHost: x\r\nConnection: close, X-Mine\r\nX-Mine: 1\r\n"
                                "TE: trailers\r\nX-Other: 2\r\nTransfer-Encoding: chunked\r\n\r\n"
                                "4\r\nbody\r\n0\r\n\r\n");
        const QByteArray asked = request(web);
        QVERIFY2(asked.startsWith("POST /form?a=b HTTP/1.1\r\n") && asked.endsWith("\r\n\r\nbody"), asked);
        for (const char *field : {"Host: box.example\r\n", "X-Other: 2\r\n", "Via: 1.1 nat-peer\r\n", "Content-Length: 4\r\n"})
            QVERIFY2(asked.contains(field), asked);
        for (const char *field : {"Connection", "X-Mine", "TE:", "Transfer-Encoding"})
            QVERIFY2(!asked.contains(field), asked);
        web.answer("HTTP/1.1 302 Found\r\nLocation: http://box.example/there?c\r\nConnection: X-Its\r\nX-Its: 3\r\nX-Other: 4\r\n"
                   "Transfer-Encoding: chunked\r\n\r\n3\r\nyes\r\n0\r\n\r\n");
        const QByteArray got = answer(client);
        QVERIFY2(got.startsWith("HTTP/1.1 302 Found\r\n") && body(got) == "yes", got);
        for (const char *field : {"Location: /there?c\r\n", "X-Other: 4\r\n", "Content-Length: 3\r\n", "Connection: close\r\n"})
            QVERIFY2(got.contains(field), got);
        QVERIFY2(!got.contains("X-Its") && !got.contains("chunked"), got);
    }

    void whatCannotBeDoneIsSaid()
    {
        const QByteArray ok = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nETag: \"1\"\r\n\r\nshort";
        const QByteArray page = "GET / HTTP/1.1\r\nConnection: close\r\n\r\n";
        const QByteArray form = "POST / HTTP/1.1\r\nConnection: close\r\nContent-Length: ";
        const QList<std::tuple<QByteArray, QByteArrayList, QByteArray, QByteArray>> rows{
            // asked, answers of the web server, status, reason
            {"GARBAGE\r\n\r\n", {}, "400", "this is no HTTP request"},
            {"CONNECT box:443 HTTP/1.1\r\nConnection: close\r\n\r\n", {}, "501", "this is a way to one box"},
            {"GET / HTTP/1.1\r\nConnection: Upgrade, close\r\nUpgrade: websocket\r\n\r\n", {}, "501", "do not pass"},
            {"GET / HTTP/1.1\r\nConnection: close\r\nAccept: text/event-stream\r\n\r\n", {}, "501", "do not pass"},
            {page, {"HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\n"}, "501", "do not pass"},
            {form + "65427\r\n\r\n" + QByteArray(65427, 'x'), {}, "413", "must fit into 65426 bytes"},
            {form + "65400\r\n\r\n" + QByteArray(65400, 'x'), {}, "413", "must fit into 65426"},
            {"GET / HTTP/1.1\r\nX: " + QByteArray(40000, 'x') + "\r\n\r\n", {}, "431", "must fit into 32768 bytes"},
            {page, {ok, ok}, "502", "5 of 9 bytes, and its web server gives no ranges of the rest; an nginx before the web server helps"},
            {page,
             {ok, "HTTP/1.1 206 Partial\r\nContent-Range: bytes 5-8/10\r\nContent-Length: 4\r\nETag: \"1\"\r\n\r\nrest"},
             "502",
             "delivered 5 of 9 bytes"},
            {page, {"HTTP/1.1 200 OK\r\n\r\nsome"}, "502", "4 bytes came, and more may be missing; an nginx before"},
            {form + "0\r\n\r\n", {ok}, "502", "delivered 5 of 9 bytes, and there is no way"},
            {page, {""}, "504", "no answer to the request"}};
        WebServer web;
        startRelay();
        for (const auto &[asked, answers, status, reason] : rows) {
            startProxy({"--timeout", "2"});
            const auto client = ask(asked);
            for (const QByteArray &bytes : answers) {
                QVERIFY2(!request(web).isEmpty(), asked.left(100));
                web.answer(bytes);
            }
            const QByteArray got = answer(client);
            QVERIFY2(got.startsWith("HTTP/1.1 " + status + ' ') && body(got).contains(reason) && body(got).count('\n') == 1,
                     status + ' ' + reason + " but " + got);
        }
    }

    void requestsWaitInOrder()
    {
        WebServer web;
        startRelay();
        startProxy({"--queue", "3"});
        const auto first = get("/0");
        QVERIFY(request(web).startsWith("GET /0 "));
        const auto second = ask( // two in one go
            "GET /1 HTTP/1.1\r\nHost: x\r\n\r\nGET /3 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        const auto gone = get("/gone");
        const auto third = get("/2");
        QVERIFY(answer(get("/too-many")).startsWith("HTTP/1.1 503 Service Unavailable\r\n"));
        gone->abort();
        for (const char *target : {"/0", "/1", "/2", "/3"}) {
            if (target[1] != '0')
                QVERIFY2(request(web).startsWith(QByteArray("GET ") + target + ' '), target);
            web.answer(QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n") + target);
        }
        QVERIFY(body(answer(first)) == "/0" && body(answer(third)) == "/2" && answer(second).count("200 OK") == 2);
    }

    void statusIsToldAndNotAskedOfTheBox()
    {
        WebServer web;
        startRelay();
        startProxy();
        const auto of = [](const QByteArray &json) { return QJsonDocument::fromJson(json).object(); };
        const auto status = [&of] { return of(body(answer(get("/.nat-peer/status.json")))); };
        QVERIFY(QTest::qWaitFor([&] { return status()["roundTrip"].toDouble() > 0; }, 10000));
        const auto page = get("/page");
        QVERIFY(request(web).startsWith("GET /page "));
        QCOMPARE(status()["rate"].toInt(), 0); // at once, while the box is busy
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + QByteArray(5000, 'x'));
        QVERIFY(!answer(page).isEmpty() && status()["rate"].toInt() > 500);
        const auto [asked, told, none] = fetch({"--json", "status"}); // of the one that serves
        QVERIFY2(asked == 0 && of(told)["received"].toInt() > 5000 && of(told)["state"] == "open", told);
        for (const auto &[line, code, text] :
             {std::tuple("GET /.nat-peer/status", "200",
                         "<h1>The box is reached on the same network, "
                         "directly at 127.0.0.1</h1>"),
              std::tuple("HEAD /.nat-peer/status?x", "200", ""), std::tuple("POST /.nat-peer/status", "405", "GET"),
              std::tuple("GET http://x/.nat-peer/other", "404", "no such page")}) {
            const QByteArray got = answer(ask(QByteArray(line) + " HTTP/1.0\r\n\r\n"));
            QVERIFY2(got.startsWith(QByteArray("HTTP/1.1 ") + code) && body(got).contains(text), line + got);
            QCOMPARE(body(got).isEmpty(), *text == '\0');
        }
        const auto last = get("/last");
        QVERIFY(request(web).startsWith("GET /last ")); // and nothing else came to the box
        proxy.reset();
        QTcpServer other; // who says what he likes, but for another peer or of another box is not believed
        QVERIFY(other.listen(QHostAddress::LocalHost, 8080));
        for (const QByteArray &whose : {peerUuid, boxUuid}) {
            const Process asking(new QProcess);
            startPeer(asking.get(), {"status"});
            QVERIFY(QTest::qWaitFor([&] { return other.hasPendingConnections(); }));
            QTcpSocket *fake = other.nextPendingConnection();
            const QJsonObject lie{
                {"state", "open"}, {"how", "\x1b[2J"}, {"box", QString::fromLatin1(boxUuid)}, {"peer", QString::fromLatin1(whose)}};
            fake->write("HTTP/1.0 200 OK\r\n\r\n" + QJsonDocument(lie).toJson());
            fake->disconnectFromHost();
            const auto [ended, lines, said] = finish(asking.get());
            QVERIFY2(ended == 0 && lines.startsWith("The box is reached ?[2J\n") == (whose == peerUuid), lines + said);
        }
        other.close();
        const auto [open, opened, quiet] = fetch({"--json", "status"}); // opens a path for it
        QVERIFY2(open == 0 && of(opened)["received"] == 0 && of(opened)["roundTrip"].toDouble() > 0, opened + quiet);
        relay.reset();
        const auto [failed, lines, error] = fetch({"--timeout", "1", "status"});
        QVERIFY2(failed == 1 && lines.startsWith("The box is not reached\n  Likeliest cause   no answer from the box: is it there"), lines);
        QVERIFY2(lines.contains("\n  knocking at the box's port: no answer ("), lines);
    }

    void lateAnswerIsNotTakenForTheNext()
    {
        WebServer web;
        startRelay();
        startProxy({"--timeout", "1"});
        const auto first = get("/first");
        QVERIFY(request(web).startsWith("GET /first ") && body(answer(first)).startsWith("no answer"));
        const auto client = get("/second");
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nold");
        QVERIFY(request(web).startsWith("GET /second "));
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nnew");
        QCOMPARE(body(answer(client)), "new");
        const auto stream = get("/stream"); // refused, and let go by the relay when the web server ends it
        QVERIFY(request(web).startsWith("GET /stream "));
        web.answer("HTTP/1.1 200 OK\r\nContent-Type: Text/Event-Stream; v=1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nevent\r\n");
        QVERIFY(answer(stream).startsWith("HTTP/1.1 501 "));
        web.answer("0\r\n\r\n");
        const auto broken = get("/broken"); // what has come is passed on, and not taken for all
        QVERIFY(request(web).startsWith("GET /broken "));
        web.answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n");
        QVERIFY(QTest::qWaitFor([&] { return broken->peek(1000).endsWith("\r\n5\r\nfirst\r\n"); }, 900));
        QVERIFY(answer(broken).endsWith("\r\n5\r\nfirst\r\n"));
        startRelay();
        web.probeTime = 2200; // what is asked for its own sake is slow as well
        startProxy({"--timeout", "15"});
        const auto slow = get("/slow");
        QVERIFY(request(web).startsWith("GET /slow "));
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nown");
        QCOMPARE(body(answer(slow)), "own");
    }

    void responsesThatLookLikeOthersDoNoHarm()
    {
        WebServer web;
        startRelay();
        startProxy({"--timeout", "5", "--verbose"});
        const QByteArray ok = "HTTP/1.1 200 OK\r\nContent-Length: ";
        auto client = get("/a%20b"); // the header alone, as a web server may write it; its page stays before pictures
        QVERIFY(request(web).startsWith("GET /a%20b "));
        const auto picture = ask("GET /picture HTTP/1.0\r\nAccept: image/png\r\n\r\n");
        web.answer(ok + "5\r\n\r\n");
        const QByteArray foreign = "HTTP/1.1 404 Not Found\r\nContent-Length: "; // to somebody else's harmless request
        for (const QByteArray &head : {foreign + "9\r\n\r\n", QByteArray()}) {
            QVERIFY(request(web, "GET /a%20b ").contains("\r\nRange: bytes=0-4\r\n"));
            web.answer(head);
        }
        web.answer("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4/5\r\nContent-Length: 5\r\n\r\nwhole");
        QCOMPARE(body(answer(client)), "whole");
        QVERIFY(request(web).startsWith("GET /picture "));
        client = get("/between");
        web.answer(ok + "9\r\n\r\nfirst");
        QVERIFY(request(web).startsWith("GET /between "));
        picture->abort(); // between two parts
        QByteArray told;
        const auto isTold = [&](const char *line) { return (told += proxy->readAllStandardError()).contains(line); };
        QVERIFY(QTest::qWaitFor([&] { return isTold("GET /picture: the client went away; "); }, 5000));
        web.answer(ok + "0\r\n\r\n");
        QVERIFY(body(answer(client)).isEmpty());
        const QByteArray page = "a page that is longer";
        const QByteArray chunked =
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + QByteArray::number(page.size(), 16) + "\r\n" + page + "\r\n0\r\n\r\n";
        for (const QByteArray &head :
             {QByteArray("HTTP/1.1 200 OK\r\n"), foreign + "9\r\n\r\n", foreign + "9\r\n\r\n" + chunked,
              foreign + "99\r\n\r\n" + ok + "3\r\n\r\nown", foreign + "0\r\n\r\n" + ok, foreign + "9\r\n\r\nNot found" + chunked}) {
            client = ask("GET /foreign HTTP/1.0\r\n\r\n");
            QVERIFY(request(web, "GET /foreign ").startsWith("GET /foreign "));
            web.answer(head);
            QVERIFY(request(web, "GET /foreign ").startsWith("GET /foreign "));
            web.answer(chunked);
            QCOMPARE(body(answer(client)), page);
        }
        client = get("/like"); // a page that begins like an answer is believed the second time
        for (int time = 0; time < 2; time++) {
            QVERIFY(request(web, "GET /like ").startsWith("GET /like "));
            web.answer(ok + "8\r\n\r\nHTTP/1.1");
        }
        QCOMPARE(body(answer(client)), "HTTP/1.1");
        for (const auto &[behind, status] : {std::pair("", "HTTP/1.1 200 "), std::pair("HTTP/1.1 200 OK\r\n", "HTTP/1.1 502 ")}) {
            client = ask("POST /like HTTP/1.0\r\nContent-Length: 1\r\n\r\nx"); // which must not be asked for twice
            QVERIFY(request(web, "POST ").startsWith("POST "));
            web.answer(ok + "8\r\n\r\nHTTP/1.1" + behind);
            QVERIFY(answer(client).startsWith(status));
        }
        // The relay takes this page for a beginning of chunks, and does not know its end: the next requests must all the
        // same be answered.
        const QByteArray like = QByteArray(9000, 'x') + "Transfer-Encoding: chunked" + QByteArray(9000, 'x');
        for (const QByteArray &text : {like, QByteArray("first"), QByteArray("second")}) {
            client = get("/page");
            QVERIFY(request(web).contains("GET /page "));
            web.answer(ok + QByteArray::number(text.size()) + "\r\n\r\n" + text);
            QVERIFY(body(answer(client)) == text);
        }
        client = get("/equal"); // the relay does not get past the second of two equal parts
        QVERIFY(request(web).contains("GET /equal "));
        web.answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
        QByteArray got;
        for (const QByteArray &part : {QByteArray("4\r\nsame\r\n"), QByteArray("5\r\nother\r\n")}) {
            web.answer(part);
            QVERIFY(QTest::qWaitFor([&] { return (got += client->readAll()).endsWith(part); }, 15000));
        }
        QElapsedTimer sinceEqual;
        sinceEqual.start();
        web.answer("4\r\nsame\r\n");
        got += answer(client);
        QVERIFY2(got.endsWith("other\r\n") && sinceEqual.elapsed() < 8000, got);
        QVERIFY2(QTest::qWaitFor([&] { return isTold("equal parts"); }, 5000), told);
        web.answer("0\r\n\r\n");
        client = ask("HEAD / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        QVERIFY(request(web, "HEAD / ").startsWith("HEAD / HTTP/1.0\r\n")); // to which no server answers with chunks
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n");
        QVERIFY(answer(client).contains("\r\nContent-Length: 7\r\n"));
        QVERIFY(isTold("GET /a%20b: 200; "));
    }

    void clientsMayGoAtAnyTime()
    {
        WebServer web;
        startRelay();
        startProxy({"--timeout", "2"});
        for (int time = 0; time < 5; time++) {
            const auto client = ask("GET /1 HTTP/1.1\r\nHost: x\r\n\r\nGET /2 HTTP/1.1\r\nHost: x\r\n\r\n");
            QVERIFY(!request(web, "GET /1 ").isEmpty());
            web.answer("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1");
            QVERIFY(time % 2 == 0 || QTest::qWaitFor([&] { return client->bytesAvailable() > 0; }, 15000));
            client->abort();
        }
        // Longer than a router passes on: no answer, and the next one is not held up.
        QVERIFY(nft({"add table inet mtu; add chain inet mtu in { type filter hook input priority 0; };"
                     "add rule inet mtu in udp dport 5000 udp length > 1400 drop"}));
        const QByteArray reply = answer(get("/" + QByteArray(2000, 'x')));
        QVERIFY(nft({"delete table inet mtu"}));
        QVERIFY2(reply.startsWith("HTTP/1.1 504 "), reply);
        const auto last = get("/last");
        QVERIFY(!request(web, "GET /last ").isEmpty());
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nlast");
        QCOMPARE(body(answer(last)), "last");
        relay.reset();
        const auto waiting = get("/never");
        proxy->terminate(); // in the middle of it
        QVERIFY(QTest::qWaitFor([this] { return proxy->state() == QProcess::NotRunning; }, 10000) && proxy->exitCode() == 0);
    }

    void restartsAreSurvived()
    {
        write("pages/page.html", "there");
        startNginx();
        startRelay();
        startProxy({"--timeout", "5"});
        QCOMPARE(body(answer(get("/page.html"))), "there");
        startRelay();
        QCOMPARE(body(answer(get("/page.html"))), "there");
        relay.reset();
        QVERIFY(body(answer(get("/page.html"))).startsWith("no answer from the box"));
        startRelay();
        QCOMPARE(body(answer(get("/page.html"))), "there");
        nginx.reset();
        const auto waiting = get("/page.html"); // the relay waits for the web server
        QVERIFY(awaitLog([this] { return log.contains("Failed to write to TCP port"); }));
        startNginx();
        QCOMPARE(body(answer(waiting)), "there");
        write("pages/long", QByteArray(400000, 'x'));
        const auto cut = get("/long");
        QVERIFY(QTest::qWaitFor([&] { return cut->bytesAvailable() > 0; }, 15000));
        const auto lastId = [this] {
            const auto at = log.lastIndexOf("UDP request recv id: ") + 21;
            return log.mid(at, log.indexOf(' ', at) - at).toUShort();
        };
        const quint16 before = lastId();
        startProxy({"--timeout", "5"}); // kills the one that takes in the packets
        QCOMPARE(body(answer(get("/page.html"))), "there");
        QVERIFY(awaitLog([] { return true; }));
        const auto ahead = static_cast<quint16>(lastId() - before); // ids that the relay remembers are not used again
        QVERIFY2(ahead > 0 && ahead < 6000, QByteArray::number(ahead));
        proxy->terminate(); // tells the relay good-bye
        QVERIFY(QTest::qWaitFor([this] { return proxy->state() == QProcess::NotRunning; }, 10000) && proxy->exitCode() == 0);
        const int connects = log.count("Connection requested");
        QVERIFY2(awaitLog([&] { return log.count("Connection requested") > connects; }) || connects > 1, log);
    }
};

QTEST_GUILESS_MAIN(ProxyTest)
#include "proxy_test.moc"
