#pragma once

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

class StoreConnection;

/// The settings and peers of a store.
struct StoreContent {
    QString error;               // not empty: why the file is no store
    QList<QStringList> settings; // name, value, access key
    QList<QStringList> peers;    // UUID, address, then the ports in the order of the schema
    QList<QStringList> names;    // UUID, name

    /// Of a file that nobody writes.
    static StoreContent read(const QString &file);

    /// Gives a store these settings and peers and no others, in a transaction of the caller's. What the store knows of
    /// a peer that is connected stays; other peers begin as disconnected.
    bool putInto(StoreConnection *store) const;

    QString setting(const char *name) const;
    QSet<QString> peerUuids() const;
};
