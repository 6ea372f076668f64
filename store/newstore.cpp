// Makes a store. The host's library expects one that is there, so this talks to the engines itself.

#include "store/newstore.h"

#include "store/boxstore.h"
#include "store/growingfile.h"
#include "store/settingrules.h"
#include "store/storeconnection.h"
#include "store/storecontent.h"

#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QStringList>

#include <storeurl.h>

#include <sys/stat.h>

namespace
{
bool fillSettings(StoreConnection *store)
{
    const QString sql =
        QStringLiteral("INSERT INTO %1(name, value, access_key) VALUES (?, ?, ?)").arg(store->table("settings"));
    for (const SettingRule &rule : SettingRule::all()) {
        const QString name = QString::fromLatin1(rule.name);
        if (rule.initial != nullptr && !store->run(sql, {name, rule.initial(), BoxStore::accessKeyOf(name)}))
            return false;
    }
    return true;
}

QStringList schemaStatements(const QString &resource)
{
    QFile schema(resource);
    if (!schema.open(QIODevice::ReadOnly))
        qFatal("no schema in the program");
    QStringList statements;
    const auto parts = QString::fromUtf8(schema.readAll()).split(QLatin1Char(';'));
    for (const QString &part : parts) {
        if (!part.trimmed().isEmpty())
            statements.append(part);
    }
    return statements;
}

QString fillSqlite(const StoreUrl &store, const StoreContent *content)
{
    StoreConnection connection(store);
    // No journal beside the file: unless all goes well the file goes too.
    bool isMade = connection.open() && connection.run(QStringLiteral("PRAGMA journal_mode = MEMORY")) &&
                  connection.run(QStringLiteral("BEGIN"));
    const auto statements = schemaStatements(QStringLiteral(":/schema-sqlite.sql"));
    for (const QString &statement : statements)
        isMade = isMade && connection.run(statement);
    isMade = isMade && (content == nullptr ? fillSettings(&connection) : content->putInto(&connection)) &&
             connection.run(QStringLiteral("COMMIT"));
    return isMade ? QString() : connection.error();
}

QString makeSqlite(const StoreUrl &store, const StoreContent *content)
{
    // A log or journal would be read into the new store.
    for (const char *rest : {"", "-wal", "-journal"}) {
        const QString file = store.path + QLatin1String(rest);
        struct stat status = {};
        if (lstat(QFile::encodeName(file).constData(), &status) == 0)
            return QStringLiteral("%1 exists already and stays as it is; name a new file in BOX_DATABASE").arg(file);
    }
    GrowingFile file(store.path);
    QString error = file.error();
    if (error.isEmpty()) {
        StoreUrl growing = store;
        growing.path = file.growingPath();
        error = fillSqlite(growing, content);
    }
    if (error.isEmpty() && !file.keep())
        error = file.error();
    return error.isEmpty() ? QString() : QStringLiteral("cannot make %1: %2").arg(store.path, error);
}

QStringList firstColumn(const QList<QStringList> &rows)
{
    QStringList column;
    for (const QStringList &row : rows)
        column.append(row.constFirst());
    return column;
}

QString makeMariadb(const StoreUrl &store)
{
    StoreConnection connection(store);
    const auto failure = [&store](const QString &reason) {
        return QStringLiteral("cannot make %1: %2").arg(store.shown, reason);
    };
    if (!connection.open())
        return failure(connection.error());
    const auto tables = firstColumn(
        connection.rows(QStringLiteral("SELECT table_name FROM information_schema.tables WHERE "
                                       "table_schema = 'box' AND table_name IN ('settings', 'nat_traverse')")));
    const auto schemas = connection.rows(
        QStringLiteral("SELECT schema_name FROM information_schema.schemata WHERE schema_name = 'box'"));
    if (!connection.error().isEmpty())
        return failure(connection.error());
    if (!tables.isEmpty())
        return QStringLiteral("%1 has the table %2 already and stays as it is; use nat-relay-admin set to change it")
            .arg(store.shown, tables.join(QLatin1String(" and ")));

    // Each statement that makes something takes effect at once, so whatever was made is undone one by one.
    static const QRegularExpression creation(QStringLiteral("CREATE (DATABASE|TABLE) ([\\w.]+)"));
    QStringList undo;
    bool isMade = true;
    const auto statements = schemaStatements(QStringLiteral(":/schema-mysql.sql"));
    for (const QString &statement : statements) {
        const auto match = creation.match(statement);
        if (!isMade || (match.captured(1) == QLatin1String("DATABASE") && !schemas.isEmpty()))
            continue;
        isMade = connection.run(statement);
        if (isMade)
            undo.prepend(QStringLiteral("DROP %1 %2").arg(match.captured(1), match.captured(2)));
    }
    if (isMade && fillSettings(&connection))
        return QString();

    const QString error = connection.error();
    for (const QString &statement : qAsConst(undo)) {
        if (!connection.run(statement))
            return failure(QStringLiteral("%1; and the half of it stays: %2").arg(error, connection.error()));
    }
    return failure(error);
}
} // namespace

QString makeStore(const StoreUrl &store, const StoreContent *content)
{
    if (!store.error.isEmpty())
        return QStringLiteral("%1: %2").arg(store.shown, store.error);
    if (!QSqlDatabase::isDriverAvailable(store.driver))
        return QStringLiteral("the SQL driver %1 is not installed").arg(store.driver);
    return store.path.isEmpty() ? makeMariadb(store) : makeSqlite(store, content);
}
