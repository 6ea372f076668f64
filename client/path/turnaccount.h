#pragma once

#include <QByteArray>
#include <QString>

/// A server that carries datagrams (TURN, RFC 8656), and what lets this peer use it for a while.
struct TurnAccount {
    QString host;
    quint16 port = 0;
    quint16 tlsPort = 0;       // 0: no TLS there
    bool isUdpBlocked = false; // the rendezvous server has answered over TCP alone
    QByteArray user;
    QByteArray password;
};
