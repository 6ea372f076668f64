// Settings and peers in the store. The host's library tells failures to the log only; here the log is what tells a
// command that it has failed.

#include "store/boxstore.h"

#include "core/hostcalls.h"

#include <QHostAddress>
#include <QLoggingCategory>
#include <QRegularExpression>

#include <database.h>

namespace
{
QString &firstError()
{
    static QString error;
    return error;
}

void keepError(QtMsgType level, const QMessageLogContext & /*context*/, const QString &message)
{
    if (level == QtCriticalMsg && firstError().isEmpty())
        firstError() = message;
}

QList<QVector<QString>> run(const char *sql, const QList<QString> &params = {})
{
    return Database(QStringLiteral("Admin"))
        .performQueryWithResult(QString::fromLatin1(sql), params, hostcalls::accessKey());
}

} // namespace

bool StoredPeer::isReachable() const
{
    return !QHostAddress(address).isNull() && (udpPort != noPort || udpPortRemote != noPort);
}

BoxStore::BoxStore()
{
    qInstallMessageHandler(keepError);
    // Whatever the environment's rules switch off, an error must not be taken for an empty store.
    QLoggingCategory::installFilter([](QLoggingCategory *category) { category->setEnabled(QtCriticalMsg, true); });
}

QString BoxStore::error() const
{
    static const QRegularExpression lacksNames(
        QStringLiteral("no such table: box.peer_names|box.peer_names' doesn't exist"));
    const bool isOld = lacksNames.match(firstError()).hasMatch();
    return firstError() +
           (isOld ? QStringLiteral("; the store is an older one: use nat-relay-admin upgrade") : QString());
}

QMap<QString, QString> BoxStore::settings() const
{
    QMap<QString, QString> settings;
    const auto rows = run("SELECT name, value FROM `box`.`settings`");
    for (const QVector<QString> &row : rows)
        settings.insert(row.at(0), row.at(1));
    return settings;
}

void BoxStore::put(const QMap<QString, QString> &settings) const
{
    QByteArray sql("REPLACE INTO `box`.`settings`(name, value, access_key) VALUES ");
    QList<QString> params;
    for (auto setting = settings.cbegin(); setting != settings.cend(); ++setting) {
        sql += params.isEmpty() ? "(?, ?, ?)" : ", (?, ?, ?)";
        params += {setting.key(), setting.value(), accessKeyOf(setting.key())};
    }
    run(sql.constData(), params);
}

QList<StoredPeer> BoxStore::peers() const
{
    QList<StoredPeer> peers;
    const auto rows = run("SELECT remote_uuid, remote_ip, status, udp_port, udp_port_remote, name "
                          "FROM `box`.`nat_traverse` LEFT JOIN `box`.`peer_names` USING (remote_uuid) ORDER BY id");
    for (const QVector<QString> &row : rows)
        peers.append({row.at(0), row.at(1), row.at(2).toInt(), row.at(3).toInt(), row.at(4).toInt(), row.at(5)});
    return peers;
}

void BoxStore::addPeer(const StoredPeer &peer) const
{
    if (!peer.name.isEmpty())
        namePeer(peer); // before: one without a row is seen by nobody
    run("INSERT INTO `box`.`nat_traverse`(remote_ip, remote_uuid, status, udp_port, udp_port_remote) "
        "VALUES (?, ?, ?, ?, ?)",
        {peer.address, peer.uuid, QString::number(peer.status), QString::number(peer.udpPort),
         QString::number(peer.udpPortRemote)});
}

void BoxStore::changePeer(const StoredPeer &peer) const
{
    run("UPDATE `box`.`nat_traverse` SET remote_ip = ?, status = ?, udp_port = ?, udp_port_remote = ? "
        "WHERE remote_uuid = ?",
        {peer.address, QString::number(peer.status), QString::number(peer.udpPort), QString::number(peer.udpPortRemote),
         peer.uuid});
}

/// A name that is left from a peer whose row other software has removed is taken over.
void BoxStore::namePeer(const StoredPeer &peer) const
{
    run("REPLACE INTO `box`.`peer_names`(remote_uuid, name) VALUES (?, ?)", {peer.uuid, peer.name});
}

void BoxStore::removePeer(const QString &uuid) const
{
    run("DELETE FROM `box`.`nat_traverse` WHERE remote_uuid = ?", {uuid});
    run("DELETE FROM `box`.`peer_names` WHERE remote_uuid = ?", {uuid}); // after: alone it is seen by nobody
}

QString BoxStore::accessKeyOf(const QString &setting)
{
    const bool isProtected = setting == QLatin1String("uuid") || setting.startsWith(QLatin1String("nat_introduction_"));
    return isProtected ? hostcalls::accessKey() : hostcalls::noAccessKey();
}
