// The programs as they are run: nginx, nat-relayd and nat-peer, each a process of its own.

#include "tests/support/relayfixture.h"

#include <QProcess>
#include <QRegularExpression>

#include <unistd.h>

namespace
{
const QString configText = QStringLiteral("[peer]\nuuid=%1\n[box]\nuuid=%2\naddress=127.0.0.1:5000\nkey=%3\niv=%4\n");

struct Result {
    int status = -1;
    QByteArray output;
    QByteArray error;
};
} // namespace

class EndToEndTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void logKeepsToItsLevelAndPattern();
    void idleCostsLittle();
    void pagesArriveByteForByte();
    void downWebServerOnlyDelays();
    void restartedRelayAnswersAll();
    void shortResponseIsNoSuccess_data();
    void shortResponseIsNoSuccess();
    void mistakesAreExplainedInALine_data();
    void mistakesAreExplainedInALine();

private:
    void startRelay();
    void startNginx();
    void startPeer(QProcess *peer, const QStringList &words) const;
    Result fetch(const QStringList &words) const;
    static Result finish(QProcess *peer, int limit = 300000);
    QString path(const char *name) const { return m_folder->filePath(QLatin1String(name)); }
    static void write(const QString &path, const QByteArray &text)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
    }
    bool awaitLog(const QByteArray &text)
    {
        return QTest::qWaitFor([&] { return (m_log += m_relay->readAllStandardError()).contains(text); }, 10000);
    }

    std::unique_ptr<RelayFixture> m_box; // its store; the relay is a process here
    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<QProcess> m_relay;
    std::unique_ptr<QProcess> m_nginx;
    QByteArray m_log;
};

void EndToEndTest::init()
{
    m_box.reset(); // before another takes its place
    m_box = std::make_unique<RelayFixture>();
    qInstallMessageHandler(nullptr);
    m_box->addPeer(peerUuid, 0);
    m_folder = std::make_unique<QTemporaryDir>();
    m_log.clear();
    QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral("pages")));
    write(path("peer.ini"), configText.arg(QString(peerUuid), QString(boxUuid), QString(testKey.toHex()), QString(testIv.toHex())).toLatin1());
}

void EndToEndTest::cleanup()
{
    for (auto *process : {&m_relay, &m_nginx}) {
        if (*process) {
            (*process)->kill();
            (*process)->waitForFinished();
            process->reset();
        }
    }
}

void EndToEndTest::startRelay()
{
    m_relay = std::make_unique<QProcess>();
    m_relay->start(QStringLiteral(BUILD_DIR "/nat-relayd"), QStringList());
    QVERIFY2(awaitLog("NAT Traverse started"), m_log.constData());
}

void EndToEndTest::startNginx()
{
    m_nginx = std::make_unique<QProcess>();
    m_nginx->start(QStringLiteral("nginx"), {"-e", "stderr", "-p", m_folder->path(), "-c", SOURCE_DIR "/scripts/nginx.conf"});
    QTcpSocket probe;
    QVERIFY(QTest::qWaitFor([&] {
        probe.connectToHost(QHostAddress(QHostAddress::LocalHost), 80);
        return probe.waitForConnected(100);
    }, 10000));
}

void EndToEndTest::startPeer(QProcess *peer, const QStringList &words) const
{
    peer->start(QStringLiteral(BUILD_DIR "/nat-peer"), QStringList{"--config", path("peer.ini")} + words);
}

Result EndToEndTest::finish(QProcess *peer, int limit)
{
    if (!QTest::qWaitFor([peer] { return peer->state() == QProcess::NotRunning; }, limit))
        return {};
    return {peer->exitCode(), peer->readAllStandardOutput(), peer->readAllStandardError()};
}

Result EndToEndTest::fetch(const QStringList &words) const
{
    QProcess peer;
    startPeer(&peer, words);
    return finish(&peer);
}

void EndToEndTest::logKeepsToItsLevelAndPattern()
{
    qunsetenv("QT_LOGGING_RULES");
    startRelay();
    Peer peer;
    QVERIFY(QTest::qWaitFor([&] { // once its table is read, and long after the first lines of lower level
        peer.send(peer.link(1));
        return awaitLog("info NAT: Connection requested from ::ffff:127.0.0.1 on port ");
    }));
    const QRegularExpression lines(QStringLiteral("\\A(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} info NAT: [^\n]+\n)+\\z"));
    QVERIFY2(lines.match(QString::fromUtf8(m_log)).hasMatch(), m_log.constData());
    cleanup();
    m_log.clear();
    qputenv("QT_MESSAGE_PATTERN", "<%{message}>");
    startRelay();
    qunsetenv("QT_MESSAGE_PATTERN");
    QCOMPARE(m_log, QByteArray("<NAT Traverse started. UDP listening on 5000 & 5001>\n"));
}

void EndToEndTest::idleCostsLittle()
{
#ifdef __SANITIZE_ADDRESS__
    QSKIP("the sanitizers' own cost is no measure");
#endif
    startRelay();
    const auto field = [this](const char *file, const QString &pattern) {
        QFile proc(QStringLiteral("/proc/%1/%2").arg(m_relay->processId()).arg(QLatin1String(file)));
        return proc.open(QIODevice::ReadOnly) ? QRegularExpression(pattern).match(QString::fromUtf8(proc.readAll())) : QRegularExpressionMatch();
    };
    const auto seconds = [&] {
        const auto match = field("stat", QStringLiteral("\\) .(?: -?\\d+){10} (\\d+) (\\d+)"));
        return (match.captured(1).toDouble() + match.captured(2).toDouble()) / double(sysconf(_SC_CLK_TCK));
    };
    const double before = seconds();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(QTest::qWaitFor([&] { return timer.elapsed() > 5000; }, 6000)); // the span that is measured
    const double load = 100 * (seconds() - before) / (double(timer.elapsed()) / 1000);
    const int resident = field("status", QStringLiteral("VmRSS:\\s*(\\d+) kB")).captured(1).toInt();
    qInfo("idle: %.2f %% of a core, %d kB resident", load, resident);
    QVERIFY(load < 2);
    QVERIFY(resident > 0 && resident < 30000);
}

void EndToEndTest::pagesArriveByteForByte()
{
    QByteArray page;
    for (int line = 0; page.size() < 1000000; line++)
        page += "line " + QByteArray::number(line) + '\n';
    write(path("pages/chunked"), page);
    write(path("pages/short.html"), "<p>short</p>");
    startNginx();
    startRelay();
    const Result short1 = fetch({"-i", "get", "/short.html"});
    QVERIFY2(short1.status == 0 && short1.output.startsWith("HTTP/1.1 200 OK\r\n") && short1.output.endsWith("\r\n\r\n<p>short</p>"), short1.error.constData());
    QCOMPARE(fetch({"get", "/missing"}).status, 0); // a complete response, whatever it says

    QProcess nft; // a fifth of the datagrams is lost on their way in, to the relay and to the peer
    nft.start(QStringLiteral("nft"), {"add table inet loss; add chain inet loss in { type filter hook input priority 0; };"
                                      "add rule inet loss in udp dport 5000 numgen random mod 100 < 20 counter drop;"
                                      "add rule inet loss in udp sport 5000 numgen random mod 100 < 20 counter drop"});
    QVERIFY(nft.waitForFinished() && nft.exitCode() == 0);
    const Result chunked = fetch({"get", "/chunked"});
    QVERIFY2(chunked.status == 0 && chunked.output == page, chunked.error.constData());
    const Result next = fetch({"get", "/short.html"});
    QVERIFY2(next.output == "<p>short</p>", next.error.constData());
    nft.start(QStringLiteral("nft"), {"list table inet loss; delete table inet loss"});
    QVERIFY(nft.waitForFinished());
    QCOMPARE(nft.readAll().count("counter packets 0"), 0); // both ways did lose
}

void EndToEndTest::downWebServerOnlyDelays()
{
    write(path("pages/page.html"), "there at last");
    startRelay();
    QProcess peer;
    startPeer(&peer, {"get", "/page.html"});
    QElapsedTimer timer;
    timer.start();
    QVERIFY(QTest::qWaitFor([this] { return (m_log += m_relay->readAllStandardError()).count("debug NAT: Failed to write to TCP port") == 11; }, 10000));
    QVERIFY2(timer.elapsed() > 1000 && timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed()))); // one every 100 ms
    startNginx();
    timer.start();
    const Result result = finish(&peer);
    QVERIFY2(result.status == 0 && result.output == "there at last", result.error.constData());
    QVERIFY(timer.elapsed() < 1000);
    m_log += m_relay->readAllStandardError();
    QCOMPARE(m_log.count("error NAT: Failed to connect to local TCP port 80 (UDP Slot)"), 1);
    QCOMPARE(m_log.count("error NAT: "), 2); // and the link's own word for the refusal
}

void EndToEndTest::restartedRelayAnswersAll()
{
    WebServer web;
    startRelay();
    QProcess peer;
    startPeer(&peer, {"get", "/"});
    QVERIFY(QTest::qWaitFor([&] { return web.takeRequest().startsWith("GET / HTTP/1.1\r\n"); }, 10000));
    m_relay->kill();
    m_relay->waitForFinished();
    startRelay(); // it knows nothing of the request; the peer reminds it
    QVERIFY(QTest::qWaitFor([&] { return web.takeRequest().startsWith("GET / HTTP/1.1\r\n"); }, 15000));
    web.answer("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    QCOMPARE(finish(&peer).output, QByteArray("ok"));
}

void EndToEndTest::shortResponseIsNoSuccess_data()
{
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("complaint");
    const QByteArray chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    QTest::newRow("length not reached") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort") << QByteArray("short") << QByteArray("cut short, 4 bytes are missing");
    QTest::newRow("chunks stop") << chunked + "5\r\nshort\r\n" << QByteArray("short") << QByteArray("cut short, the rest does not come");
    QTest::newRow("no chunk size") << chunked + "five\r\nshort\r\n0\r\n\r\n" << QByteArray() << QByteArray("a chunk of the response has no size");
    QTest::newRow("no HTTP") << QByteArray("SSH-2.0-box\r\n\r\n") << QByteArray() << QByteArray("the answer is no HTTP response");
    QTest::newRow("complete") << chunked + "5;x=y\r\nwhole\r\n0\r\n\r\n" << QByteArray("whole") << QByteArray();
}

void EndToEndTest::shortResponseIsNoSuccess()
{
    QFETCH(QByteArray, response);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, complaint);
    WebServer web;
    startRelay();
    QProcess peer;
    startPeer(&peer, {"--timeout", "2", "get", "/"});
    QVERIFY(QTest::qWaitFor([&] { return !web.takeRequest().isEmpty(); }, 10000));
    web.answer(response);
    const Result result = finish(&peer);
    QCOMPARE(result.output, output);
    QCOMPARE(result.status, complaint.isEmpty() ? 0 : 1);
    QVERIFY2(result.error.contains(complaint) && result.error.count('\n') == result.status, result.error.constData());
}

void EndToEndTest::mistakesAreExplainedInALine_data()
{
    QTest::addColumn<QString>("wrong"); // in the file, and what stands there instead
    QTest::addColumn<QString>("instead");
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QByteArray>("complaint");
    const QStringList get{"--timeout", "1", "get", "/"};
    const QString key(testKey.toHex());
    QTest::newRow("wrong key") << key << QString(32, '1') << get << QByteArray("no answer from the box");
    QTest::newRow("short key") << key << key.left(31) << get << QByteArray("key in [box] must be 32 hexadecimal digits");
    QTest::newRow("zero byte in the IV") << QString(testIv.toHex()) << QString(32, '0') << get << QByteArray("iv in [box] must hold no byte 00");
    QTest::newRow("no port") << "127.0.0.1:5000" << "127.0.0.1" << get << QByteArray("address in [box] must be host:port");
    QTest::newRow("no UUID") << QString(peerUuid) << "me" << get << QByteArray("uuid in [peer] must be a UUID in braces");
    QTest::newRow("the box's UUID") << QString(peerUuid) << QString(boxUuid) << get << QByteArray("must be the peer's own");
    QTest::newRow("no file") << "" << "" << QStringList{"--config", "/no/such.ini", "get", "/"} << QByteArray("/no/such.ini: No such file or directory");
    QTest::newRow("no command") << "" << "" << QStringList{"/"} << QByteArray("use nat-peer --config peer.ini get /path");
    QTest::newRow("unknown option") << "" << "" << QStringList{"--key", "x", "get", "/"} << QByteArray("Unknown option 'key'");
    QTest::newRow("path with a line end") << "" << "" << QStringList{"get", "/\r\nHost: x"} << QByteArray("the path must begin with /");
}

void EndToEndTest::mistakesAreExplainedInALine()
{
    QFETCH(QString, wrong);
    QFETCH(QString, instead);
    QFETCH(QStringList, words);
    QFETCH(QByteArray, complaint);
    startRelay();
    QFile file(path("peer.ini"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    write(path("peer.ini"), QString::fromLatin1(file.readAll()).replace(wrong.isEmpty() ? QStringLiteral("no such text") : wrong, instead).toLatin1());
    const Result result = fetch(words);
    QCOMPARE(result.status, 1);
    QVERIFY(result.output.isEmpty());
    QVERIFY2(result.error.startsWith("nat-peer: ") && result.error.contains(complaint) && result.error.count('\n') == 1, result.error.constData());
    QVERIFY(!result.error.contains(testKey.toHex()));
}

QTEST_GUILESS_MAIN(EndToEndTest)
#include "endtoend_test.moc"
