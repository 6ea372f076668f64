#pragma once

#include "client/path/udpchannel.h"
#include "introduction/messages.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTimer>

/// Asks a STUN server (RFC 8489), as every TURN server is one, where it sees a socket of this machine.
class StunProbe : public QObject
{
    Q_OBJECT

public:
    /// Asks at once, a few times at the most.
    StunProbe(UdpChannel *channel, const QString &host, quint16 port, QObject *parent);

    /// A datagram that came to the channel. Whether it was the answer.
    bool take(const QByteArray &data);

signals:
    void seen(const introduction::Address &address);

private:
    void begin(const QList<QHostAddress> &addresses);
    void ask();

    UdpChannel *m_channel;
    const quint16 m_port;
    QHostAddress m_server;
    QByteArray m_request;
    int m_sent = 0;
    QTimer m_repeat;
};
