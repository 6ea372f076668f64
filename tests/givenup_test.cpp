// What clients get behind pages that were given up, that broke off or came with holes, whatever it left at the relay.

#include "client/relay/chunkpace.h"
#include "tests/support/proxied.h"

#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTimer>

#include <csignal>

namespace
{
/// A web server that answers one request after another as the path says: at once, late, in chunks, or breaking off within
/// them. Every page is made of its own path.
struct Site : WebServer {
    Site()
    {
        QObject::connect(&clock, &QTimer::timeout, this, &Site::step);
        clock.start(10);
        probeAnswer += "<p>Not found"; // though only the head was asked for, as small web servers do
    }
    static QByteArray page(const QByteArray &path) { return Programs::page(path, path.contains("large") ? 240000 : 800); }
    void step()
    {
        const QByteArray path = parts.isEmpty() ? takeRequest().split(' ').value(1) : QByteArray();
        if (!path.isEmpty()) {
            const QByteArray text = page(path);
            const QByteArray whole = "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(text.size()) + "\r\n\r\n" + text;
            const auto chunk = [](const QByteArray &part) { return QByteArray::number(part.size(), 16) + "\r\n" + part + "\r\n"; };
            if (path.startsWith("/late"))
                parts = QByteArrayList::fromVector(QVector<QByteArray>(path.contains("long") ? 600 : 60)) << whole;
            else if (path.startsWith("/whole"))
                parts = {whole};
            else
                parts = {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"};
            if (path.startsWith("/chunks-large"))
                parts.append(chunk(text));
            if (path.contains("pause"))
                parts += QByteArrayList::fromVector(QVector<QByteArray>(200));
            const bool isTicking = path.contains("ticks");
            const bool isSlow = isTicking || path.contains("slow");
            const bool isAtOnce = path.contains("large") || path.contains("pause") || path.startsWith("/late") || path.startsWith("/whole");
            for (int at = 0; at < (isSlow ? text.size() : 30000) && !isAtOnce; at += isSlow ? 2000 : 3000) {
                const QByteArray part = isTicking ? QByteArray("tick\n") : text.mid(at, isSlow ? 2000 : 3000);
                parts << (at < text.size() ? chunk(part) : QByteArray());
                parts += QByteArrayList::fromVector(QVector<QByteArray>(isTicking ? 30 : isSlow ? 60 : 1));
            }
            if (path.startsWith("/chunks"))
                parts.append("0\r\n\r\n");
            breaksOff = path.startsWith("/broken");
        }
        if (!parts.isEmpty())
            answer(parts.takeFirst());
        if (parts.isEmpty() && std::exchange(breaksOff, false))
            connection->abort();
    }
    QTimer clock;
    QByteArrayList parts; // still to be sent, one every 10 ms
    bool breaksOff = false;
};
} // namespace

class GivenUpTest : public QObject, Proxied
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup()
    {
        proxy.reset();
        end();
    }

    void pagesGivenUpHarmNobody()
    {
        Site site;
        startRelay();
        startProxy({"--timeout", "20"});
        QRandomGenerator random(20261125);
        const QByteArrayList kinds{"/whole", "/late", "/chunks", "/broken"};
        int whole = 0;
        for (int i = 0; i < 25; i++) {
            const QByteArray path = kinds.at(random.bounded(kinds.size())) + QByteArray::number(random.generate64(), 16);
            const auto client = ask("GET " + path + " HTTP/1.0\r\n\r\n");
            const bool isGivenUp = path.startsWith("/broken") || random.bounded(2) == 0;
            if (isGivenUp) {
                QTest::qWait(random.bounded(400)); // the moment is what is tried
                client->abort();
            } else {
                const QByteArray got = answer(client);
                QVERIFY2(got.startsWith("HTTP/1.1 200 ") && body(got) == Site::page(path), got.left(300));
                whole++;
            }
        }
        QVERIFY(whole > 5);
        QVERIFY(body(answer(get("/late"))) == Site::page("/late")); // which is no sign of a bad line
        const auto cut = get("/broken0");
        QVERIFY(QTest::qWaitFor([&] { return cut->bytesAvailable() > 0; }, 15000));
        QVERIFY(QTest::qWaitFor([&] { return site.parts.isEmpty() && !site.breaksOff; }));
        QElapsedTimer sinceFree;
        sinceFree.start();
        cut->abort();
        QVERIFY(body(answer(get("/whole0"))) == Site::page("/whole0") && sinceFree.elapsed() < 1200);
        const auto large = get("/chunks-large"); // which the relay has in store long before it could deliver it
        QVERIFY(QTest::qWaitFor([&] { return large->bytesAvailable() > 0 && site.parts.isEmpty(); }, 15000));
        sinceFree.start();
        QVERIFY(QTest::qWaitFor([&] { return large->bytesAvailable() > 300000; }, 15000));
        large->abort();
        QVERIFY(body(answer(get("/whole0"))) == Site::page("/whole0") && sinceFree.elapsed() < 6000);
        const auto clearings = [this] { return awaitLog([] { return true; }) ? log.count("Connection requested") : -1; };
        for (const int most : {0, 5000}) {
            const auto slow = get("/chunks-slow"); // at which the web server still works: the relay must not forget it
            QVERIFY(QTest::qWaitFor([&] { return slow->bytesAvailable() > most; }, 15000));
            slow->abort();
            const int before = clearings();
            QVERIFY(QTest::qWaitFor([&] { return site.parts.size() < 2; }, 15000));
            QCOMPARE(clearings(), before);
        }
        const auto broken = get("/broken"); // the last that its peer asks: others must not wait for what comes next
        QVERIFY(QTest::qWaitFor([&] { return broken->bytesAvailable() > 0; }, 15000));
        broken->abort();
        box->addPeer(otherUuid);
        write("other.ini", QByteArray(config).replace(peerUuid, otherUuid));
        for (const char *target : {"/whole1", "/whole2"}) {
            const auto [status, output, error] = fetch({"--config", path("other.ini"), "--timeout", "8", "get", target});
            QVERIFY2(output == Site::page(target), error);
            QVERIFY(body(answer(get("/whole3"))) == Site::page("/whole3"));
        }
        const auto ticks = get("/broken-ticks"); // equal parts, for two peers
        QVERIFY(QTest::qWaitFor([&] { return ticks->bytesAvailable() > 0; }, 15000));
        ticks->abort();
        sinceFree.start();
        const auto own = get("/whole4");
        const auto [status, output, error] = fetch({"--config", path("other.ini"), "get", "/whole5"});
        QVERIFY2(output == Site::page("/whole5") && body(answer(own)) == Site::page("/whole4"), error);
        QVERIFY2(sinceFree.elapsed() < 18000, QByteArray::number(sinceFree.elapsed())); // of which four seconds are its own
        const auto free = [&] { return QTest::qWaitFor([&] { return site.parts.isEmpty() && !site.breaksOff; }, 15000); };
        for (const auto &[target, limit] : {std::pair("/broken-pause", 15000), std::pair("/late-large", 5000)}) {
            QVERIFY(body(answer(ask("GET /chunks HTTP/1.0\r\n\r\n"))) == Site::page("/chunks")); // so that the relay waits for no end
            const auto left = get(target); // the first one breaks off when the relay has been asked to forget it
            QVERIFY(QTest::qWaitFor([&] { return !site.parts.isEmpty(); }, 15000));
            left->abort();
            QVERIFY(free());
            sinceFree.start();
            QVERIFY(body(answer(get("/whole6"))) == Site::page("/whole6"));
            QVERIFY2(sinceFree.elapsed() < limit, QByteArray(target) + ' ' + QByteArray::number(sinceFree.elapsed()));
        }
        const auto late = get("/late-long"); // which is not forgotten because of what was before
        QVERIFY(QTest::qWaitFor([&] { return !site.parts.isEmpty(); }, 15000));
        late->abort();
        const int count = clearings();
        QVERIFY(QTest::qWaitFor([&] { return site.parts.size() < 2; }, 15000));
        QCOMPARE(clearings(), count);
    }

    void nobodyGetsTheAnswerToWhatWasForgotten()
    {
        Site site;
        site.probeTime = 150; // so that what proves is at the web server for long
        startRelay();
        startProxy();
        box->addPeer(otherUuid);
        write("other.ini", QByteArray(config).replace(peerUuid, otherUuid));
        Process other(new QProcess);
        startPeer(other.get(), {"--config", path("other.ini"), "--listen", "127.0.0.1:8081", "serve"});
        QVERIFY(isListening(8081));
        const auto getByOther = [](const QByteArray &target) { return ask("GET " + target + " HTTP/1.0\r\n\r\n", 8081); };
        QVERIFY(body(answer(get("/whole1"))) == Site::page("/whole1") && body(answer(getByOther("/whole2"))) == Site::page("/whole2"));
        const auto left = get("/late-long-large"); // a long answer to nobody, and two heads behind it
        QVERIFY(QTest::qWaitFor([&] { return !site.parts.isEmpty(); }, 15000));
        left->abort();
        QVERIFY(awaitLog([this] { return log.contains("Queue size: 3"); }));
        const QByteArray got = answer(getByOther("/whole3")); // is next where they are forgotten
        QVERIFY2(body(got) == Site::page("/whole3"), got.left(500));
        const auto broken = getByOther("/broken-slow"); // leaves the relay waiting, so that the own answer stays at its head
        QVERIFY(QTest::qWaitFor([&] { return broken->bytesAvailable() > 0; }, 15000));
        log.clear();
        const auto own = get("/whole4");
        QVERIFY(awaitLog([this] { return log.contains("Queue size: 2"); }));
        broken->abort();
        QVERIFY(body(answer(own)) == Site::page("/whole4"));
        QElapsedTimer sinceOwn;
        sinceOwn.start();
        QVERIFY(body(answer(get("/whole5"))) == Site::page("/whole5") && sinceOwn.elapsed() < 8000);
    }

    void silenceIsMeasuredByThePausesBefore()
    {
        const QByteArray head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
        const auto gap = [&](const QVector<qint64> &pauses, quint16 packets, const QByteArray &first, bool isLossy) {
            ChunkPace pace;
            pace.take({1, 1, 0, packets, 0}, first, 0, true, true);
            for (const qint64 pause : pauses)
                pace.take({1, 1, 0, 1, 0}, "5\r\nother\r\n", pause, true, true);
            return static_cast<int>(pace.gap(isLossy, 100).count());
        };
        const auto isIn = [](int time, int least, int most) { return time > least && time < most; };
        QVERIFY(isIn(gap({}, 1, head, false), 900, 1500));              // nothing is known
        QVERIFY(isIn(gap({10}, 1, head, false), 900, 1500));            // the first part comes at once
        QVERIFY(isIn(gap({}, 15, head, false), 300, 600));              // written at once
        QVERIFY(isIn(gap({600, 620, 610}, 1, head, false), 700, 1000)); // the next is due at 600
        QVERIFY(isIn(gap({20, 600, 610}, 1, head, false), 1300, 1800)); // it may be due later
        QVERIFY(isIn(gap({600}, 1, head, false), 1300, 1800));
        QVERIFY(isIn(gap({20, 20}, 15, "5\r\nother\r\n", false), 900, 1500)); // another's rest, of which little is known
        QVERIFY(isIn(gap({20, 20}, 15, head, true), 900, 1500));              // what came next may have been lost
    }

    void pagesWithHolesAreNotTakenForWhole()
    {
        WebServer web;
        startRelay();
        startProxy({"--timeout", "60"});
        const auto client = get("/");
        QVERIFY(!request(web).isEmpty());
        web.answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n");
        QByteArray got;
        const auto comes = [&](const QByteArray &part) {
            return QTest::qWaitFor([&] { return (got += client->readAll()).endsWith(part); }, 15000);
        };
        QVERIFY(comes("first\r\n"));
        const auto drop = [](const char *port) {
            return nft({"add table inet line; add chain inet line in { type filter hook input priority 0; };"
                        "add rule inet line in udp " +
                        QString(port) + " 5000 drop"});
        };
        for (const auto &[part, next] :
             {std::pair("1\r\n2\r\n", "1\r\n3\r\n"), std::pair("1\r\n4\r\n", "1\r\n5\r\n"), std::pair("1\r\n6\r\n", "1\r\n7\r\n")}) {
            QVERIFY(drop("dport"));
            web.answer(part); // it is confirmed in vain, comes again, and once more after a silence
            QVERIFY(comes(part));
            QTest::qWait(700);
            QVERIFY(drop("sport"));
            QTest::qWait(1500);
            QVERIFY(nft({"delete table inet line"}));
            web.answer(next);
            QVERIFY(comes(next));
        }
        QVERIFY2(got.endsWith("first\r\n1\r\n2\r\n1\r\n3\r\n1\r\n4\r\n1\r\n5\r\n1\r\n6\r\n1\r\n7\r\n"), got);
        QVERIFY(drop("sport"));
        kill(static_cast<pid_t>(proxy->processId()), SIGSTOP); // as a machine that sleeps
        web.answer("4\r\nlost\r\n");                           // the relay gives this peer up
        QVERIFY2(awaitLog([this] { return log.contains("Set connection status for 127.0.0.1 to 0"); }, 40000), log);
        QVERIFY(nft({"delete table inet line"}));
        web.answer("4\r\nlast\r\n0\r\n\r\n");
        const auto sent = [this] { return log.count("Packet size of 14 "); };
        QVERIFY2(awaitLog([&] { return sent() > 0; }), log);
        kill(static_cast<pid_t>(proxy->processId()), SIGCONT);
        got += answer(client);
        QVERIFY2(got.endsWith("7\r\n"), got);
        const auto broken = get("/broken");
        QVERIFY(!request(web, "GET /broken ").isEmpty());
        web.answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst\r\n");
        QVERIFY(QTest::qWaitFor([&] { return broken->bytesAvailable() > 0; }));
        web.connection->abort();
        QElapsedTimer sinceBroken;
        sinceBroken.start();
        QVERIFY(answer(broken).endsWith("first\r\n") && sinceBroken.elapsed() > 18000 && sinceBroken.elapsed() < 24000);
    }

    void peersMayMoveWhileAnAnswerIsDue()
    {
        WebServer web;
        startRelay();
        const auto useMapping = [](const QByteArray &port) { // of the peer's router; nothing comes through the one before
            return nft({QByteArray("flush ruleset; add table ip router;"
                                   "add chain ip router out { type filter hook output priority 0; };"
                                   "add chain ip router in { type filter hook prerouting priority -300; };"
                                   "add rule ip router out udp sport 5555 udp dport 5000 udp sport set PORT;"
                                   "add rule ip router in udp sport 5000 udp dport PORT udp dport set 5555;"
                                   "add rule ip router in udp sport 5000 udp dport != 5555 drop")
                            .replace("PORT", port)});
        };
        const auto reset = qScopeGuard([] { nft({"flush ruleset"}); });
        QVERIFY(useMapping("6001"));
        startProxy({"--udp-port", "5555"});
        const auto client = get("/");
        QVERIFY(!request(web).isEmpty());
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nfirst");
        const auto breakPath = [] { return nft({"add rule ip router out udp dport 5000 drop"}); };
        QVERIFY(request(web).contains("\r\nRange: bytes=5-8\r\n") && useMapping("6002") && breakPath());
        QElapsedTimer sinceMove;
        sinceMove.start();
        for (int time = 0; time < 2; time++) {
            web.answer("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 5-8/9\r\nContent-Length: 4\r\n\r\nlast");
            if (time == 0) {
                QTest::qWait(3000); // until the box's router knows of the move
                QVERIFY(useMapping("6002") && request(web, "GET / ").contains("\r\nRange: bytes=5-8\r\n"));
            }
        }
        QVERIFY(body(answer(client)) == "firstlast" && sinceMove.elapsed() < 20000);
        const auto late = get("/late"); // at which the web server may be working: the relay must not forget it
        QVERIFY(request(web).startsWith("GET /late "));
        const auto clearings = [this] { return awaitLog([] { return true; }) ? log.count("Connection requested") : -1; };
        const int before = clearings();
        QVERIFY(breakPath());
        QTest::qWait(4000); // the path is taken for broken
        QVERIFY(useMapping("6002"));
        QTest::qWait(2500);
        QCOMPARE(clearings(), before);
        web.answer("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nlate");
        QCOMPARE(body(answer(late)), "late");
    }
};

QTEST_GUILESS_MAIN(GivenUpTest)
#include "givenup_test.moc"
