#pragma once

#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QUdpSocket>

/// A box that answered on the local network.
struct FoundBox {
    QHostAddress address;
    quint16 udpPort = 0;
    quint16 tcpPort = 0; // what the box makes known of its web server
    QString uuid;
};

/// Asks for boxes on the local network, in plain, for three seconds. A box that answers counts the asker as one of its
/// peers from then on.
class Discovery : public QObject
{
    Q_OBJECT

public:
    static constexpr quint16 defaultPort = 5001;

    /// `uuid` is the asker's; a null `target` means every IPv4 broadcast address of this machine.
    Discovery(QString uuid, const QHostAddress &target, quint16 port, QObject *parent = nullptr);

signals:
    /// One for each box and address.
    void found(const FoundBox &box);
    void finished();

private:
    void ask();
    void readReplies();

    const QString m_uuid;
    const QHostAddress m_target;
    const quint16 m_port;
    QUdpSocket m_socket;
    QTimer m_repeat;
    QElapsedTimer m_clock;
    QSet<QString> m_seen;
};
