#pragma once

#include "tests/support/box.h"

#include <QDir>
#include <QProcess>

#include <tuple>

struct Killer {
    void operator()(QProcess *process) const
    {
        process->kill();
        process->waitForFinished();
        delete process;
    }
};
using Process = std::unique_ptr<QProcess, Killer>;

/// nginx, nat-relayd and nat-peer as they are run, each a process of its own, with a fresh store for every test.
struct Programs {
    void begin()
    {
        box = std::make_unique<Box>();
        qInstallMessageHandler(nullptr);
        box->addPeer(peerUuid);
        if (!QDir(box->folder.path()).mkdir("pages"))
            qFatal("no folder");
        write("peer.ini", config);
    }
    void end()
    {
        relay.reset();
        nginx.reset();
        box.reset();
    }
    QString path(const QString &name) const { return box->folder.filePath(name); }
    void write(const QString &name, const QByteArray &text) const
    {
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            qFatal("cannot write");
    }
    /// Lines that differ from one another.
    static QByteArray page(const QByteArray &word, int lines)
    {
        QByteArray text;
        for (int line = 0; line < lines; line++)
            text += word + ' ' + QByteArray::number(line) + '\n';
        return text;
    }
    bool awaitLog(const std::function<bool()> &condition, int limit = 10000)
    {
        return QTest::qWaitFor([&] { return log += relay->readAllStandardError(), condition(); }, limit);
    }
    void startRelay()
    {
        log.clear();
        relay.reset(new QProcess); // ends the one before
        relay->start(BUILD_DIR "/nat-relayd", QStringList());
        QVERIFY2(awaitLog([this] { return log.contains("NAT Traverse started"); }), log);
    }
    static bool isListening(quint16 port)
    {
        return QTest::qWaitFor(
            [port] {
                QTcpSocket probe;
                probe.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
                return probe.waitForConnected(100);
            },
            10000);
    }
    void startNginx(const QString &configuration = SOURCE_DIR "/scripts/nginx.conf")
    {
        nginx.reset(new QProcess);
        nginx->start("nginx", {"-e", "stderr", "-p", box->folder.path(), "-c", configuration});
        QVERIFY(isListening(80));
    }
    void startPeer(QProcess *peer, const QStringList &words) const
    {
        peer->start(BUILD_DIR "/nat-peer", QStringList{"--config", path("peer.ini")} + words);
    }
    /// Exit status, standard output and standard error of nat-peer.
    static std::tuple<int, QByteArray, QByteArray> finish(QProcess *peer)
    {
        const bool ended = QTest::qWaitFor([peer] { return peer->state() == QProcess::NotRunning; }, 300000);
        return {ended ? peer->exitCode() : -1, peer->readAllStandardOutput(), peer->readAllStandardError()};
    }
    std::tuple<int, QByteArray, QByteArray> fetch(const QStringList &words) const
    {
        QProcess peer;
        startPeer(&peer, words);
        return finish(&peer);
    }
    static bool nft(const QStringList &words, QByteArray *output = nullptr)
    {
        QProcess process;
        process.start("nft", words);
        const bool isDone = process.waitForFinished() && process.exitCode() == 0;
        if (output != nullptr)
            *output = process.readAll();
        return isDone;
    }

    const QByteArray config = "[peer]\nuuid=" + peerUuid + "\n[box]\nuuid=" + boxUuid + "\naddress=127.0.0.1:5000\nkey=" + testKey.toHex() +
                              "\niv=" + testIv.toHex() + '\n';
    std::unique_ptr<Box> box; // its store; the relay is a process here
    Process relay;
    Process nginx;
    QByteArray log; // of the relay
};
