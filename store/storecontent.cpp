#include "store/storecontent.h"

#include "handover/valuecheck.h"
#include "store/schemaversion.h"
#include "store/storeconnection.h"

#include <algorithm>

namespace
{
/// Empty text, or what is wrong with the file.
QString checkFile(StoreConnection *file)
{
    const auto integrity = file->rows(QStringLiteral("PRAGMA integrity_check(1)"));
    if (!integrity.isEmpty() && integrity.constFirst().constFirst() != QLatin1String("ok"))
        return integrity.constFirst().constFirst();
    const int version = schemaversion::of(file);
    return file->error().isEmpty() ? schemaversion::check(version) : file->error();
}
} // namespace

StoreContent StoreContent::read(const QString &file)
{
    StoreUrl url;
    url.driver = QStringLiteral("QSQLITE");
    url.path = file;
    StoreConnection connection(url);
    StoreContent content;
    QString problem = connection.openUnchanging() ? checkFile(&connection) : connection.error();
    if (problem.isEmpty()) {
        content.settings = connection.rows(QStringLiteral("SELECT name, value, access_key FROM settings"));
        content.peers = connection.rows(QStringLiteral(
            "SELECT remote_uuid, remote_ip, udp_port, tcp_port, udp_port_remote FROM nat_traverse ORDER BY id"));
        if (schemaversion::of(&connection) >= schemaversion::withNames)
            content.names = connection.rows(QStringLiteral("SELECT remote_uuid, name FROM peer_names"));
        problem = connection.error();
    }
    if (problem.isEmpty())
        problem = valuecheck::uuid(content.setting("uuid"), QStringLiteral("uuid in it"));
    content.error = problem;
    return content;
}

bool StoreContent::putInto(StoreConnection *store) const
{
    bool isPut = store->run(QStringLiteral("DELETE FROM settings"));
    for (const QStringList &setting : settings)
        isPut = isPut &&
                store->run(QStringLiteral("INSERT INTO settings(name, value, access_key) VALUES (?, ?, ?)"), setting);
    const auto wanted = peerUuids();
    const auto known = store->rows(QStringLiteral("SELECT remote_uuid FROM nat_traverse"));
    for (const QStringList &row : known) {
        if (!wanted.contains(row.constFirst()))
            isPut = isPut && store->run(QStringLiteral("DELETE FROM nat_traverse WHERE remote_uuid = ?"), row);
    }
    // Where a connected peer is now the store knows better: an older address would break its path off.
    for (const QStringList &peer : peers)
        isPut = isPut && store->run(QStringLiteral("INSERT INTO nat_traverse"
                                                   "(remote_uuid, remote_ip, udp_port, tcp_port, udp_port_remote) "
                                                   "VALUES (?, ?, ?, ?, ?) ON CONFLICT(remote_uuid) DO UPDATE SET "
                                                   "remote_ip = excluded.remote_ip, udp_port = excluded.udp_port, "
                                                   "tcp_port = excluded.tcp_port, "
                                                   "udp_port_remote = excluded.udp_port_remote WHERE status != 1"),
                                    peer);
    isPut = isPut && store->run(QStringLiteral("DELETE FROM peer_names"));
    for (const QStringList &name : names)
        isPut = isPut && store->run(QStringLiteral("INSERT INTO peer_names(remote_uuid, name) VALUES (?, ?)"), name);
    return isPut && store->error().isEmpty();
}

QString StoreContent::setting(const char *name) const
{
    const auto row = std::find_if(settings.cbegin(), settings.cend(), [name](const QStringList &setting) {
        return setting.constFirst() == QLatin1String(name);
    });
    return row == settings.cend() ? QString() : row->at(1);
}

QSet<QString> StoreContent::peerUuids() const
{
    QSet<QString> uuids;
    for (const QStringList &peer : peers)
        uuids.insert(peer.constFirst());
    return uuids;
}
