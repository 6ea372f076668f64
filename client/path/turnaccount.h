#pragma once

#include <QByteArray>
#include <QString>

/// A server that carries datagrams (TURN, RFC 8656), and what lets this peer use it for a while.
struct TurnAccount {
    QString host;
    quint16 port = 0;
    QByteArray user;
    QByteArray password;
};
