#pragma once

#include "client/path/udpchannel.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>

/// The UDP sockets of a path: a first one that stays, and others while it takes many to meet the box.
class SocketPool : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// The first one. False where the port cannot be used; 0 is always the same for a peer, or any where that is taken.
    bool open(const QString &uuid, quint16 port);
    /// Opens more, as far as this process may, and gives the number that there is.
    int grow(int wanted);
    /// Closes all but the first one and this.
    void shrink(const Channel *kept);

    UdpChannel *first() const { return m_sockets.constFirst(); }
    UdpChannel *at(int place) const { return m_sockets.at(place); }

signals:
    void received(UdpChannel *socket, const QByteArray &data, const QHostAddress &from, quint16 port);

private:
    bool add(quint16 port);

    QList<UdpChannel *> m_sockets;
};
