#pragma once

#include "core/udphandler.h"
#include "tests/support/peer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <functional>
#include <memory>

/// Every log line of the process since the last clear, whatever wrote it, as "level message".
inline QStringList &logLines()
{
    static QStringList lines;
    return lines;
}
inline void recordLog(QtMsgType type, const QMessageLogContext & /*context*/, const QString &message)
{
    logLines() += QStringList{"debug ", "warning ", "error ", "fatal ", "info "}.value(type) + message;
}
inline int logged(const QString &text) { return logLines().filter(text).size(); }
inline QDateTime ago(int milliseconds) { return QDateTime::currentDateTime().addMSecs(-milliseconds); }

/// A box: a store of its own and, once started, a relay in this process whose turns the test runs.
struct Box {
    Box()
    {
        qputenv("QT_LOGGING_RULES", "NAT.debug=true");
        qputenv("BOX_DATABASE", "sqlite:" + QUrl::toPercentEncoding(folder.filePath("box.sqlite"), "/"));
        qInstallMessageHandler(recordLog);
        store = QSqlDatabase::addDatabase("QSQLITE", "box");
        store.setDatabaseName(folder.filePath("box.sqlite"));
        QFile schema(SOURCE_DIR "/host/schema-sqlite.sql");
        if (!store.open() || !schema.open(QIODevice::ReadOnly))
            qFatal("no store");
        const QList<QByteArray> statements = schema.readAll().split(';').mid(0, 3);
        for (const QByteArray &statement : statements)
            sql(statement);
        sql("INSERT INTO settings VALUES ('uuid', '" + boxUuid + "', 'Hq4TbWn8LpRe2KsV'), ('aes_key', '" + testKey.toHex() +
            "', ''), ('aes_iv', '" + testIv.toHex() +
            "', ''), ('nat_udpport', '5000', ''), ('nat_udpportdiscover', '5001', ''), ('nat_tcpport', '8088', ''),"
            "('nat_server_udpport', '7000', ''), ('server_hostname', 'rendezvous.example', ''), ('nat_maxconnecttries', '2', ''),"
            "('nat_connectioninterval', '60000', ''), ('nat_server_update_interval', '300', '')");
    }
    ~Box()
    {
        if (relay)
            qDeleteAll(relay->tcpQueue);
        UDPHandler::chunkedTcpTransfer = false;
        store = QSqlDatabase();
        QSqlDatabase::removeDatabase("box");
        qInstallMessageHandler(nullptr);
    }
    QVariant sql(const QByteArray &text)
    {
        QSqlQuery query(store);
        if (!query.exec(QString::fromUtf8(text)))
            qFatal("%s", text.constData());
        return query.next() ? query.value(0) : QVariant();
    }
    void set(const QMap<QByteArray, QByteArray> &values)
    {
        for (auto value = values.cbegin(); value != values.cend(); ++value)
            sql("REPLACE INTO settings(name, value) VALUES ('" + value.key() + "', '" + value.value() + "')");
    }
    void addPeer(const QByteArray &uuid, int status = 0, const QByteArray &ip = "127.0.0.1")
    {
        sql("INSERT INTO nat_traverse(remote_uuid, status, remote_ip, udp_port, udp_port_remote) VALUES ('" + uuid + "', " +
            QByteArray::number(status) + ", '" + ip + "', 4000, 4001)");
    }
    int storedStatus(const QByteArray &uuid) { return sql("SELECT status FROM nat_traverse WHERE remote_uuid = '" + uuid + "'").toInt(); }
    /// Starts a relay that has just read its table and registered; its log is still empty.
    Box &start(const QList<QByteArray> &peers = {peerUuid, otherUuid})
    {
        for (const QByteArray &uuid : peers)
            addPeer(uuid);
        relay = std::make_unique<UDPHandler>();
        relay->lastServerUpdate = QDateTime::currentDateTime();
        loadClients();
        logLines().clear();
        return *this;
    }
    void loadClients()
    {
        relay->lastRemoteClientsLoad = QDateTime();
        relay->getRemoteClients();
    }
    bool turnUntil(const std::function<bool()> &condition, int deadline = 5000) const
    {
        QElapsedTimer timer;
        timer.start();
        while (!condition()) {
            if (timer.hasExpired(deadline))
                return false;
            relay->turn();
        }
        return true;
    }
    void turns(int count) const
    {
        for (int i = 0; i < count; i++)
            relay->turn();
    }
    /// What the peer gets next while the relay turns, deciphered.
    QByteArray reply(Peer &peer) const
    {
        QByteArray data;
        turnUntil([&] { return !(data = peer.receive()).isNull(); });
        return Peer::crypt(data, false);
    }
    /// Has the relay take in one datagram at once.
    void take(Peer &peer, const QByteArray &plain) const
    {
        peer.send(plain);
        relay->readyRead();
    }
    UDPHandler::RemoteClient &client(const QByteArray &uuid = peerUuid) const { return relay->remoteClients[uuid]; }
    /// Queues a response packet for the peer, as the relay would have.
    UDPHandler::UdpMessage &queue(const Peer &peer, int id, int index, const QByteArray &slice, bool confirmed = false) const
    {
        const QByteArray data = QByteArray(89, 'h') + slice;
        relay->udpQueue.append({client(peer.uuid), data, false, id, index, QDateTime(), Peer::checksum(slice), 0, confirmed});
        relay->udpQueue.last().client.udpPortRemote = peer.socket.localPort();
        return relay->udpQueue.last();
    }

    std::unique_ptr<UDPHandler> relay;
    QTemporaryDir folder;
    QSqlDatabase store;
};

struct StartedBox : Box {
    explicit StartedBox(const QList<QByteArray> &peers = {peerUuid, otherUuid}) { start(peers); }
};

/// A web server that says what the test wants, in as many writes as it wants.
struct WebServer : QTcpServer {
    explicit WebServer(quint16 port = 80) { listen(QHostAddress(QHostAddress::LocalHost), port); }
    /// What has been asked since the last call. What nat-peer asks for its own sake is answered and counted.
    QByteArray takeRequest()
    {
        if (sinceProbe.isValid() && !sinceProbe.hasExpired(probeTime))
            return QByteArray();
        if (sinceProbe.isValid())
            answer(probeAnswer);
        sinceProbe.invalidate();
        while (hasPendingConnections())
            connection = nextPendingConnection();
        if (connection == nullptr || !connection->isOpen())
            return QByteArray();
        const QByteArray bytes = connection->readAll();
        if (!bytes.startsWith("HEAD /nat-peer-"))
            return bytes;
        probes++;
        sinceProbe.start();
        return QByteArray();
    }
    void answer(const QByteArray &bytes) const
    {
        connection->write(bytes);
        connection->flush();
    }
    bool isClosed() const { return connection->state() != QAbstractSocket::ConnectedState; }

    QTcpSocket *connection = nullptr;
    QByteArray probeAnswer = "HTTP/1.0 404 Not Found\r\n\r\n";
    int probes = 0;
    int probeTime = 0; // ms that the answer to one of them takes
    QElapsedTimer sinceProbe;
};
