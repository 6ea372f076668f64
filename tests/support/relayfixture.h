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

#include <functional>
#include <memory>

/// Log lines of the process since the last clear, each "level message", and of all categories.
inline QStringList &logLines()
{
    static QStringList lines;
    return lines;
}

inline void recordLog(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    static const QMap<int, QString> levels{{QtDebugMsg, QStringLiteral("debug ")}, {QtInfoMsg, QStringLiteral("info ")},
                                           {QtWarningMsg, QStringLiteral("warning ")}, {QtCriticalMsg, QStringLiteral("error ")}};
    logLines() += levels.value(type) + message;
    if (message.startsWith(QLatin1String("FAIL")) || message.startsWith(QLatin1String("   Loc")))
        fprintf(stderr, "%s\n", qPrintable(message));
}

/// A box in this process: a store of its own and one relay, whose turns the test runs.
class RelayFixture
{
public:
    using UdpMessage = UDPHandler::UdpMessage;
    using RemoteClient = UDPHandler::RemoteClient;

    RelayFixture()
    {
        qputenv("QT_LOGGING_RULES", "NAT.debug=true");
        qInstallMessageHandler(recordLog);
        qputenv("BOX_DATABASE", "sqlite:" + QFile::encodeName(m_folder.filePath(QStringLiteral("box.sqlite"))));
        m_store = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("fixture"));
        m_store.setDatabaseName(m_folder.filePath(QStringLiteral("box.sqlite")));
        m_store.open();
        QFile schema(QStringLiteral(SOURCE_DIR "/host/schema-sqlite.sql"));
        if (!schema.open(QIODevice::ReadOnly))
            qFatal("no schema");
        for (const QByteArray &statement : schema.readAll().split(';').mid(0, 2))
            sql(QString::fromUtf8(statement));
        set("uuid", boxUuid, "Hq4TbWn8LpRe2KsV");
        set("nat_udpport", "5000");
        set("nat_udpportdiscover", "5001");
        set("nat_server_udpport", "7000");
        set("nat_tcpport", "8088");
        set("nat_maxconnecttries", "2");
        set("nat_connectioninterval", "60000");
        set("nat_server_update_interval", "300");
        set("server_hostname", "localhost");
        set("aes_key", testKey.toHex());
        set("aes_iv", testIv.toHex());
    }
    ~RelayFixture()
    {
        if (relay)
            qDeleteAll(relay->tcpQueue);
        UDPHandler::chunkedTcpTransfer = false;
        m_store = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("fixture"));
        qInstallMessageHandler(nullptr);
    }

    QVariant sql(const QString &text)
    {
        QSqlQuery query(m_store);
        if (!query.exec(text))
            qFatal("%s", qPrintable(text));
        return query.next() ? query.value(0) : QVariant();
    }
    void set(const char *name, const QByteArray &value, const char *accessKey = "")
    {
        sql(QStringLiteral("REPLACE INTO settings VALUES ('%1', '%2', '%3')").arg(QLatin1String(name), QString::fromUtf8(value), QLatin1String(accessKey)));
    }
    void addPeer(const QByteArray &uuid, int status, const char *ip = "127.0.0.1", int port = 4000, int portRemote = 4001)
    {
        sql(QStringLiteral("INSERT INTO nat_traverse(remote_uuid, status, remote_ip, udp_port, udp_port_remote) VALUES ('%1', %2, '%3', %4, %5)")
                .arg(QString::fromUtf8(uuid)).arg(status).arg(QLatin1String(ip)).arg(port).arg(portRemote));
    }
    int storedStatus(const QByteArray &uuid) { return sql(QStringLiteral("SELECT status FROM nat_traverse WHERE remote_uuid = '%1'").arg(QString::fromUtf8(uuid))).toInt(); }

    /// A relay that knows the peers of the store; nothing is logged yet.
    void start(bool withPeers = true)
    {
        if (withPeers) {
            addPeer(peerUuid, 0);
            addPeer(otherUuid, 0);
        }
        relay = std::make_unique<UDPHandler>();
        relay->getRemoteClients();
        relay->lastServerUpdate = QDateTime::currentDateTime();
        if (withPeers)
            logLines().clear();
    }
    bool turnUntil(const std::function<bool()> &condition, int deadline = 5000)
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
    void turns(int count)
    {
        for (int i = 0; i < count; i++)
            relay->turn();
    }
    /// What the peer gets next while the relay turns.
    QByteArray reply(Peer &peer, bool enciphered = true)
    {
        QByteArray data;
        turnUntil([&] { return !(data = peer.receiveRaw()).isNull(); });
        return enciphered ? Peer::crypt(data, false) : data;
    }
    static int logged(const char *line) { return logLines().filter(QString::fromUtf8(line)).size(); }
    static QDateTime ago(int milliseconds) { return QDateTime::currentDateTime().addMSecs(-milliseconds); }

    /// A response packet waiting for `uuid`, as the relay would have queued it.
    void queuePacket(const QByteArray &uuid, int id, int index, const QByteArray &slice)
    {
        UdpMessage packet;
        packet.client = relay->remoteClients.value(QString::fromUtf8(uuid));
        packet.client.host = QHostAddress(QHostAddress::LocalHost);
        packet.client.udpPortRemote = 9; // nobody listens
        packet.data = QByteArray(89, 'h') + slice;
        packet.msgId = id;
        packet.package = index;
        packet.checksum = Peer::md5(slice).left(5);
        relay->udpQueue.append(packet);
    }

    RemoteClient &client(const QByteArray &uuid) { return relay->remoteClients[QString::fromUtf8(uuid)]; }
    QMap<QString, RemoteClient> &clients() { return relay->remoteClients; }
    QList<UdpMessage *> &requests() { return relay->tcpQueue; }
    QList<UdpMessage> &packets() { return relay->udpQueue; }
    int &currentSocket() { return relay->currentSocket; }
    int &currentRequestId() { return relay->currentRequestId; }
    QDateTime &lastSettingsLoad() { return relay->lastSettingsLoad; }
    QDateTime &lastServerUpdate() { return relay->lastServerUpdate; }
    QDateTime &lastRemoteClientsLoad() { return relay->lastRemoteClientsLoad; }
    UDPHandler *operator->() { return relay.get(); }
    // The members that need the relay's keys or sockets.
    QList<QVariant> settings() const
    {
        return {relay->udpPort, relay->serverUdpPort, relay->maxConnectTries, relay->aesIv.toHex(), relay->aesKey.toHex(), relay->serverUpdateInterval};
    }
    QByteArray encrypt(const QByteArray &text) { return relay->encryptMessage(text); }
    QByteArray decrypt(const QByteArray &text) { return relay->decryptMessage(text); }
    QStringList uuids(const QByteArray &data) { return relay->wrapUUID(data); }
    int contentLength(const QString &text) { return relay->getHttpContentLength(text); }
    void cut(const QByteArray &response) { relay->queueResponse(response, relay->remoteClients.first()); }
    void setStatus(ConnectionStatus status, const QByteArray &uuid) { relay->setConnectionStatus(status, QString::fromUtf8(uuid)); }
    void loadClients() { relay->getRemoteClients(); }

    std::unique_ptr<UDPHandler> relay;

private:
    QTemporaryDir m_folder;
    QSqlDatabase m_store;
};

/// A web server on port 80 that says what the test wants, in as many writes as it wants.
class WebServer : public QTcpServer
{
public:
    WebServer() { listen(QHostAddress(QHostAddress::LocalHost), 80); }
    /// What has been asked since the last call.
    QByteArray takeRequest()
    {
        while (hasPendingConnections())
            m_connection = nextPendingConnection();
        return m_connection != nullptr ? m_connection->readAll() : QByteArray();
    }
    void answer(const QByteArray &bytes)
    {
        m_connection->write(bytes);
        m_connection->flush();
    }
    bool isClosed() const { return m_connection->state() != QAbstractSocket::ConnectedState; }

private:
    QTcpSocket *m_connection = nullptr;
};
