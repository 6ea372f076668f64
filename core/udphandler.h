#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QDateTime>
#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <chrono>

class QTcpSocket;
class QUdpSocket;

/// State of the link to one peer; its number stands in the column `status` of the store's table `nat_traverse`.
enum class ConnectionStatus : quint8 {
    Disconnected = 0,
    Connected = 1,
    ConnectRequested = 2, // written by other programs on the box: "connect to this peer"
    Connecting = 3,
};

/// The relay: owns every socket, the peer table, both queues and all settings. Lives on one thread; the worker loop
/// drives it and its slots run inside that loop's event pumps.
class UDPHandler : public QObject
{
    Q_OBJECT

public:
    /// One remote peer.
    struct RemoteClient {
        QDateTime lastSeen;    // last datagram from it; null: none yet
        QDateTime lastAttempt; // last burst towards it; null: none yet
        QHostAddress host;
        int tries = 0;         // bursts since the last reset
        int udpPort = 0;       // where the peer says it listens
        int udpPortRemote = 0; // its port as seen from outside
        QString remoteUuid;    // with braces, equal to the key in the peer table
        quint8 status = 0;     // a ConnectionStatus, or whatever byte the store holds

        bool isIn(ConnectionStatus state) const { return status == static_cast<quint8>(state); }
    };

    /// One queued request (`tcpQueue`) or response packet (`udpQueue`).
    struct UdpMessage {
        RemoteClient client;    // the peer as it was when the message was made
        QByteArray data;        // request: the HTTP bytes; response packet: the whole plaintext datagram
        bool forwarded = false; // request: written to the web server
        int msgId = 0;
        int package = 0;    // index of a response packet
        QDateTime lastSent; // null: never
        QByteArray checksum;
        int tries = 0; // send passes made
        bool confirmed = false;
    };

    /// Reads the settings, binds both UDP sockets and tries the local web server, blocking for up to 30 s.
    explicit UDPHandler(QObject *parent = nullptr);

    /// Runs turns without end.
    [[noreturn]] void work();

public slots: // in this order: it fixes their meta-object indices
    void readyRead();
    void readyReadDiscover();
    void readyReadTCP();
    void tcpDisconnected();
    void tcpError(QAbstractSocket::SocketError error);

private:
    // core/: one turn of the worker loop; settings, registration with the rendezvous server
    void turn();
    void loadSettings();
    void registerWithServer();

    // protocol/: what every duty needs of the wire
    QStringList wrapUUID(const QByteArray &data) const;
    QByteArray calculateChecksum(const QByteArray &data) const;
    QByteArray encryptMessage(QByteArray message) const;
    QByteArray decryptMessage(QByteArray message) const;

    // protocol/: what a peer's datagram meets first
    void takeConnectRequest(const RemoteClient &peer);
    void takeKeepAlive(const RemoteClient &peer, bool enciphered);
    void takeConfirmation(const RemoteClient &peer, const QByteArray &data);
    void takeRequest(const RemoteClient &peer, const QByteArray &data);
    bool isKnownRequest(int msgId, const QString &peerUuid) const;
    void answer(const RemoteClient &peer, const QByteArray &data);
    void dropRequests(const QString &peerUuid);

    // bridge/: to the web server and back
    bool connectToWebServer(std::chrono::milliseconds wait);
    void reopenQuietly();
    void forwardNextRequest();
    int getHttpContentLength(const QString &text) const;
    void queueResponse(const QByteArray &response, const RemoteClient &client);

    // protocol/: the way out
    void sendNextPacket();
    QList<UdpMessage>::iterator findPacket(const QByteArray &packet);
    void sendUntilAccepted(const QByteArray &packet);
    void dropPackets(const QString &peerUuid);
    void dropExpiredPackets();

    // peers/: who they are and the way to them
    void getRemoteClients();
    void setConnectionStatus(ConnectionStatus status, const QString &peerUuid);
    void attendPeers();
    void attemptConnection(RemoteClient &peer);
    void sendBurst(const RemoteClient &peer);

    QUdpSocket *udpSocket = nullptr;
    QUdpSocket *discoverSocket = nullptr;
    QTcpSocket *tcpSocket = nullptr;
    int currentRequestId = 0;
    int currentSocket = 0; // of the request received last, on purpose, and not of the one being answered
    QDateTime lastRemoteClientsLoad;
    QDateTime lastSettingsLoad;
    QDateTime lastServerUpdate;
    QString uuid;
    quint16 udpPort = 0;
    quint16 udpPortDiscover = 0;
    quint16 serverUdpPort = 0;
    quint16 tcpPort = 0; // only made known to others; the web server is always reached on port 80
    int maxConnectTries = 0;
    int connectionInterval = 0;   // ms
    int serverUpdateInterval = 0; // s
    QByteArray aesIv;
    QByteArray aesKey;
    QMap<QString, RemoteClient> remoteClients; // by UUID
    QList<UdpMessage *> tcpQueue;              // owned: whoever unlinks a request frees it
    QList<UdpMessage> udpQueue;

    // True while a chunked response arrives. One for the process, as there is one web server.
    static bool chunkedTcpTransfer;
};
