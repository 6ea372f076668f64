// Later programs may want other tables. What nat-relayd reads, both tables and their columns, stays in all versions.

#include "store/schemaversion.h"

#include "store/storeconnection.h"

namespace
{
/// The statements of one step, for each engine in its own words.
struct Step {
    QStringList sqlite;
    QStringList mariadb;
};

/// The first one takes a store from version 0 to 1, and so on. A new version is one more step here, and its number in
/// both schemas under host/.
const QList<Step> &steps()
{
    static const QList<Step> all{
        {}, // 0, without a number, is as 1
        {{QStringLiteral("CREATE TABLE peer_names (remote_uuid TEXT NOT NULL PRIMARY KEY, name TEXT NOT NULL UNIQUE)")},
         {QStringLiteral("CREATE TABLE IF NOT EXISTS box.peer_names (remote_uuid VARCHAR(64) NOT NULL PRIMARY KEY, "
                         "name VARCHAR(190) NOT NULL UNIQUE) CHARACTER SET utf8mb4 COLLATE utf8mb4_bin")}}};
    return all;
}

/// SQLite keeps a number for this in the file. MariaDB has none: there the comment of the table of settings is it.
bool setVersion(StoreConnection *store, int version)
{
    return store->run(store->isSqlite()
                          ? QStringLiteral("PRAGMA user_version = %1").arg(version)
                          : QStringLiteral("ALTER TABLE box.settings COMMENT = 'version %1'").arg(version));
}

/// MariaDB's statements on tables each take effect at once, so each step has its number before the next one begins.
bool climb(StoreConnection *store, int from)
{
    for (int version = from; version < schemaversion::present(); version++) {
        const Step &step = steps().at(version);
        for (const QString &statement : store->isSqlite() ? step.sqlite : step.mariadb) {
            if (!store->run(statement))
                return false;
        }
        if (!setVersion(store, version + 1))
            return false;
    }
    return true;
}

/// A number is not put on whatever else the name may stand for.
bool hasTables(StoreConnection *store)
{
    return store->run(QStringLiteral("SELECT name, value, access_key FROM %1 LIMIT 1").arg(store->table("settings"))) &&
           store->run(QStringLiteral("SELECT remote_uuid, status FROM %1 LIMIT 1").arg(store->table("nat_traverse")));
}
} // namespace

int schemaversion::present()
{
    return steps().size();
}

int schemaversion::of(StoreConnection *store)
{
    const auto rows =
        store->rows(store->isSqlite() ? QStringLiteral("PRAGMA user_version")
                                      : QStringLiteral("SELECT substr(table_comment, 9) FROM information_schema.tables "
                                                       "WHERE table_schema = 'box' AND table_name = 'settings'"));
    return rows.value(0).value(0).toInt();
}

QString schemaversion::check(int version)
{
    return version >= 0 && version <= present()
               ? QString()
               : QStringLiteral("it has version %1 of the tables and this program knows those up to %2; use the "
                                "nat-relay-admin that goes with it")
                     .arg(version)
                     .arg(present());
}

schemaversion::Upgrade schemaversion::upgrade(const StoreUrl &store)
{
    Upgrade upgrade;
    StoreConnection connection(store);
    bool isDone = connection.open() && hasTables(&connection) &&
                  (!connection.isSqlite() || connection.run(QStringLiteral("BEGIN IMMEDIATE")));
    if (isDone) {
        upgrade.from = of(&connection);
        upgrade.error = check(upgrade.from);
        isDone = connection.error().isEmpty();
    }
    if (isDone && upgrade.error.isEmpty())
        isDone =
            climb(&connection, upgrade.from) && (!connection.isSqlite() || connection.run(QStringLiteral("COMMIT")));
    if (!isDone)
        upgrade.error = connection.error();
    if (!upgrade.error.isEmpty())
        upgrade.error = store.shown + QLatin1String(": ") + upgrade.error;
    return upgrade;
}
