#pragma once

#include <QByteArray>
#include <QString>

/// Who a peer is and which box it talks to: an INI file with the sections
///   [peer] uuid
///   [box]  uuid, address (host:port; may be missing), key and iv (32 hexadecimal digits each)
struct PeerConfig {
    QString error; // not empty: one line that says what is wrong with the file and what would be right
    QString uuid;
    QString boxUuid;
    QString boxHost; // name or address; empty: to be discovered on the local network
    quint16 boxPort = 0;
    QByteArray key;
    QByteArray iv;

    static PeerConfig read(const QString &path);
};
