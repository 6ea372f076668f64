#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QSslSocket>
#include <QString>
#include <QUdpSocket>

/// Carries the messages between this peer and a TURN server: as datagrams, or over TCP or TLS for networks that let no
/// datagrams out.
class TurnTransport : public QObject
{
    Q_OBJECT

public:
    enum class Kind { Udp, Tcp, Tls };
    struct Server {
        Kind kind = Kind::Udp;
        QHostAddress address;
        quint16 port = 0;
        QString name; // that it is known by
    };

    /// Opens at once; what is sent meanwhile goes out then.
    TurnTransport(Server server, QObject *parent);

    void send(const QByteArray &message);
    /// Whether messages may be lost, and are to be sent again.
    bool isLossy() const { return m_server.kind == Kind::Udp; }
    /// "", " over TCP" or " over TLS".
    QString text() const;

signals:
    void received(const QByteArray &message);
    /// It cannot be reached, or no longer.
    void closed();

private:
    void readDatagrams();
    void readStream();
    void sendUnsent();

    const Server m_server;
    QUdpSocket m_datagrams;
    QSslSocket m_stream;
    QByteArray m_unread; // of the stream, the beginning of a message
    QByteArray m_unsent; // until it is connected
};
