#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

/// Messages to the rendezvous server and back over TCP, for networks that let no datagrams out: each behind its length
/// in 16 bits, big-endian (RFC 4571).
class CallStream : public QObject
{
    Q_OBJECT

public:
    explicit CallStream(QObject *parent);

    /// Connects to the server there, unless it is under way to it or there.
    void open(const QHostAddress &server, quint16 port);
    void close();
    bool isOpen() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    /// Lost where it is not open.
    void send(const QByteArray &message);

signals:
    void opened();
    void received(const QByteArray &message);

private:
    void read();

    QTcpSocket m_socket;
    QHostAddress m_server;
    QByteArray m_unread; // the beginning of a message
};
