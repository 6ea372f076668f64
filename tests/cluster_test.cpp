// A rendezvous server that is two nodes, with a NATS server between them: all of them as they are run.

// clazy:excludeall=non-pod-global-static

#include "tests/support/introduced.h"

#include <QFile>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

#include <csignal>
#include <memory>

namespace
{
const QByteArray here = "127.0.0.1"; // the node that the box registers at
const QByteArray there = "127.0.0.2";

struct Program : QProcess {
    Program(const QString &path, const QStringList &words)
    {
        setProcessChannelMode(MergedChannels);
        start(path, words);
    }
    ~Program() override
    {
        kill();
        waitForFinished();
    }
    void send(int signal) const { ::kill(static_cast<pid_t>(processId()), signal); }
    bool says(const QByteArray &text, int time = 20000)
    {
        log.clear();
        return QTest::qWaitFor([&] { return log += readAll(), log.contains(text); }, time);
    }
    QByteArray log;
};

/// A box or a peer, which takes nothing but what comes from its node.
struct Client : QUdpSocket {
    explicit Client(const QByteArray &node)
    {
        bind(QHostAddress::LocalHost);
        connectToHost(QHostAddress(QString::fromLatin1(node)), 7000);
    }
    QByteArray next()
    {
        QByteArray data(2000, '\0');
        data.resize(qMax(0, static_cast<int>(read(data.data(), data.size()))));
        return data;
    }
    QByteArray ask(const QByteArray &question)
    {
        write(question);
        return QTest::qWaitFor([this] { return hasPendingDatagrams(); }) ? next() : QByteArray();
    }
    bool registerBox(quint32 count)
    {
        const QByteArray challenge = ask(registration(7, count, noCookie));
        return ask(registration(7, count, challenge.mid(9, 8))).startsWith('\xa2');
    }
};
} // namespace

class ClusterTest : public QObject
{
    Q_OBJECT

    QTemporaryDir folder;
    std::unique_ptr<Program> nats;
    std::map<QByteArray, std::unique_ptr<Program>> nodes;
    std::unique_ptr<Client> box;
    int rings = 0; // that the box got
    quint16 callers = 0;

    void startNats() { nats = std::make_unique<Program>("nats-server", QStringList{"-a", "127.0.0.1"}); }
    void startNode(const QByteArray &node)
    {
        nodes[node].reset();
        nodes[node] = std::make_unique<Program>(BUILD_DIR "/nat-rendezvousd",
                                                QStringList{"--config", folder.filePath("conf"), "--listen", node + ":7000", "serve"});
    }
    /// What a new peer gets that calls the box at a node, while the box replies.
    QByteArray answer(const QByteArray &node)
    {
        Client peer(node);
        const QByteArray uuid = QByteArray(14, 'p') + bytesOf(++callers);
        const QByteArray token = hkdf(tokenOfBox, "peer" + uuid);
        const QByteArray cookie = peer.ask(call(noCookie, "x", token, uuid)).mid(9, 8);
        peer.write(call(cookie, "x", token, uuid));
        const auto isServed = [&] {
            while (box->hasPendingDatagrams()) {
                rings++;
                box->write(reply(box->next()));
            }
            return peer.hasPendingDatagrams();
        };
        return QTest::qWaitFor(isServed, 2000) ? peer.next() : QByteArray();
    }
    bool answers(const QByteArray &node) { return answer(node).endsWith("for the peer"); }
    bool refuses(const QByteArray &node) { return answer(node) == "\xa4" + callId + '\2'; }

private slots:
    void init()
    {
        QFile file(folder.filePath("conf"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("host=x\nmetrics=\ncluster=nats://127.0.0.1:4222\nsecret=" + secret.toHex() + '\n');
        file.close();
        startNats();
        for (const QByteArray &node : {here, there}) {
            startNode(node);
            QVERIFY(nodes[node]->says("connected to NATS"));
        }
        box = std::make_unique<Client>(here);
        QVERIFY(box->registerBox(1));
        QTRY_VERIFY(answers(there)); // once NATS has heard of the box
    }

    void boxIsWhereItRegisteredLast()
    {
        box = std::make_unique<Client>(there);
        QVERIFY(box->registerBox(2));
        QTRY_VERIFY(answers(here));
        QVERIFY(answers(there));
        startNode(there); // which forgets it; nor is it any more where it was before
        QVERIFY(nodes[there]->says("connected to NATS") && refuses(there));
        box.reset(); // and its UUID becomes unknown in the end, as any other:
        Client peer(here);
        QByteArray other = call(noCookie);
        other[1] = 'x';
        const QByteArray cookie = peer.ask(other).mid(9, 8);
        other = "\xa5x" + boxUuid.mid(1) + peerUuid + callId + cookie + "x";
        const QByteArray token = hkdf(hkdf(secret, "boxx" + boxUuid.mid(1)), "peer" + peerUuid);
        QCOMPARE(peer.ask(sign(other, token)), "\xa4" + callId + '\2');
    }

    void natsMayBeAway()
    {
        nats->send(SIGSTOP); // it is there and says nothing
        QVERIFY(answers(here));
        QTRY_VERIFY_WITH_TIMEOUT(refuses(there), 20000);
        nats.reset();
        startNode(there);
        QVERIFY(nodes[there]->says("cannot connect to NATS"));
        QVERIFY(answers(here));
        QTRY_VERIFY(refuses(there)); // once it is ready
        startNats();
        QTRY_VERIFY_WITH_TIMEOUT(answers(there), 20000);
        nats.reset();
        for (const QByteArray &node : {here, there}) {
            nodes[node]->terminate();
            QVERIFY(nodes[node]->waitForFinished(10000) && nodes[node]->exitStatus() == QProcess::NormalExit);
        }
    }

    void nodesMayRestart()
    {
        startNode(there);
        QVERIFY(nodes[there]->says("connected to NATS"));
        QVERIFY(answers(there));
        startNode(here);
        QVERIFY(nodes[here]->says("connected to NATS") && refuses(there));
        QVERIFY(box->registerBox(2));
        QTRY_VERIFY(answers(there));
    }

    void whatElsePassesThroughNatsChangesNothing()
    {
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", 4222);
        socket.write("CONNECT {\"verbose\":false}\r\nSUB nat-rendezvousd.> 1\r\nPING\r\n");
        QByteArray heard;
        const auto hears = [&](const QByteArray &what) {
            return QTest::qWaitFor([&] { return heard += socket.readAll(), heard.contains(what); }, 10000);
        };
        QVERIFY(hears("PONG") && answers(there) && hears(".answer"));
        QList<QPair<QByteArray, QByteArray>> letters; // subject and bytes
        for (int begin = heard.indexOf("MSG "); begin >= 0; begin = heard.indexOf("\r\nMSG ", begin + 1)) {
            const int body = heard.indexOf("\r\n", begin + 2) + 2;
            const QByteArrayList words = heard.mid(begin, body - begin).trimmed().split(' ');
            letters.append({words.at(1), heard.mid(body, words.last().toInt())});
        }
        QVERIFY(letters.size() >= 2);
        const auto publish = [&](const QByteArray &subject, const QByteArray &bytes) {
            socket.write("PUB " + subject + ' ' + QByteArray::number(bytes.size()) + "\r\n" + bytes + "\r\n");
        };
        rings = 0;
        for (const auto &[subject, bytes] : qAsConst(letters)) {
            for (const QByteArray &garbage :
                 {QByteArray(), bytes.chopped(1), bytes + 'x', '\xa6' + bytes.mid(1), bytes.repeated(1000), QByteArray(1200, '\xaa')})
                publish(subject, garbage);
            publish(subject.left(subject.lastIndexOf('.')) + ".no-hex", bytes.chopped(1));
        }
        heard.clear();
        socket.write("PING\r\n");
        QVERIFY(hears("PONG") && answers(there) && answers(here));
        QCOMPARE(rings, 2);
    }
};

QTEST_GUILESS_MAIN(ClusterTest)
#include "cluster_test.moc"
