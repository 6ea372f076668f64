#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>

/// Carries datagrams of this peer to addresses elsewhere, and theirs back.
class Channel : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// One datagram; lost where that cannot be.
    virtual void send(const QByteArray &data, const QHostAddress &to, quint16 port) = 0;
    /// Whether nobody stands between.
    virtual bool isDirect() const = 0;

signals:
    void received(const QByteArray &data, const QHostAddress &from, quint16 port);
};
