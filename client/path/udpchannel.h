#pragma once

#include "client/path/channel.h"

#include <QUdpSocket>

/// A UDP socket of this machine.
class UdpChannel : public Channel
{
    Q_OBJECT

public:
    explicit UdpChannel(QObject *parent);

    /// False where the port (0: any) cannot be used.
    bool open(quint16 port);
    quint16 port() const { return m_socket.localPort(); }
    qintptr descriptor() const { return m_socket.socketDescriptor(); }

    void send(const QByteArray &data, const QHostAddress &to, quint16 port) override;
    bool isDirect() const override { return true; }

private:
    void readDatagrams();

    QUdpSocket m_socket;
};
