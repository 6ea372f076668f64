// Makes a store. The host's library expects one that is there, so this talks to the engines itself.

#include "store/newstore.h"

#include "store/boxstore.h"
#include "store/settingrules.h"

#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QVariant>

#include <storeurl.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{
constexpr char mariadbOptions[] =
    "MYSQL_OPT_CONNECT_TIMEOUT=5;MYSQL_OPT_READ_TIMEOUT=30;MYSQL_OPT_WRITE_TIMEOUT=30"; // s

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

/// A connection for the making only, closed at its end.
class Builder
{
public:
    explicit Builder(const QString &driver) : m_database(QSqlDatabase::addDatabase(driver, connectionName())) {}
    ~Builder()
    {
        m_database = QSqlDatabase();
        QSqlDatabase::removeDatabase(connectionName());
    }
    Builder(const Builder &) = delete;
    Builder &operator=(const Builder &) = delete;

    QSqlDatabase &database() { return m_database; }
    bool open() { return m_database.open() || fail(m_database.lastError()); }
    bool run(const QString &sql, const QStringList &params = {})
    {
        QSqlQuery query(m_database);
        if (!query.prepare(sql))
            return fail(query.lastError());
        for (const QString &param : params)
            query.addBindValue(param);
        return query.exec() || fail(query.lastError());
    }
    /// First column of a SELECT.
    QStringList list(const QString &sql)
    {
        QStringList values;
        QSqlQuery query(m_database);
        if (!query.exec(sql))
            fail(query.lastError());
        while (query.next())
            values.append(query.value(0).toString());
        return values;
    }
    bool fillSettings(const QString &table)
    {
        for (const SettingRule &rule : SettingRule::all()) {
            if (rule.initial == nullptr)
                continue;
            const QString name = QString::fromLatin1(rule.name);
            if (!run(QStringLiteral("INSERT INTO %1(name, value, access_key) VALUES (?, ?, ?)").arg(table),
                     {name, rule.initial(), BoxStore::accessKeyOf(name)}))
                return false;
        }
        return true;
    }
    const QString &error() const { return m_error; }

private:
    static QString connectionName() { return QStringLiteral("NewStore"); }
    bool fail(const QSqlError &error)
    {
        m_error = error.text();
        return false;
    }

    QSqlDatabase m_database;
    QString m_error;
};

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

QString fillSqlite(const QString &path)
{
    Builder builder(QStringLiteral("QSQLITE"));
    builder.database().setDatabaseName(path);
    // No journal beside the file: unless all goes well the file goes too.
    bool isMade = builder.open() && builder.run(QStringLiteral("PRAGMA journal_mode = MEMORY")) &&
                  builder.run(QStringLiteral("BEGIN"));
    const auto statements = schemaStatements(QStringLiteral(":/schema-sqlite.sql"));
    for (const QString &statement : statements)
        isMade = isMade && builder.run(statement);
    isMade = isMade && builder.fillSettings(QStringLiteral("settings")) && builder.run(QStringLiteral("COMMIT"));
    return isMade ? QString() : builder.error();
}

/// The file grows under another name, readable by its owner alone, and takes its own when it is whole.
QString makeSqlite(const QString &path)
{
    // A log or journal would be read into the new store.
    for (const char *rest : {"", "-wal", "-journal"}) {
        const QString file = path + QLatin1String(rest);
        struct stat status = {};
        if (lstat(QFile::encodeName(file).constData(), &status) == 0)
            return QStringLiteral("%1 exists already and stays as it is; name a new file in BOX_DATABASE").arg(file);
    }
    QByteArray growing = QFile::encodeName(path) + ".XXXXXX";
    const int descriptor = mkstemp(growing.data());
    if (descriptor < 0)
        return QStringLiteral("cannot make %1: %2").arg(path, systemError());
    close(descriptor);

    QString error = fillSqlite(QFile::decodeName(growing));
    if (error.isEmpty() &&
        renameat2(AT_FDCWD, growing.constData(), AT_FDCWD, QFile::encodeName(path).constData(), RENAME_NOREPLACE) != 0)
        error = systemError();
    if (error.isEmpty())
        return QString();
    unlink(growing.constData());
    return QStringLiteral("cannot make %1: %2").arg(path, error);
}

QString makeMariadb(const StoreUrl &store)
{
    Builder builder(store.driver);
    QSqlDatabase &mariadb = builder.database();
    mariadb.setHostName(store.host);
    mariadb.setPort(store.port);
    mariadb.setUserName(store.user);
    mariadb.setPassword(store.password);
    mariadb.setConnectOptions(QLatin1String(mariadbOptions) +
                              (store.socket.isEmpty() ? QString() : QStringLiteral(";UNIX_SOCKET=") + store.socket));
    const auto failure = [&store](const QString &reason) {
        return QStringLiteral("cannot make %1: %2").arg(store.shown, reason);
    };
    if (!builder.open())
        return failure(builder.error());
    const auto tables =
        builder.list(QStringLiteral("SELECT table_name FROM information_schema.tables WHERE "
                                    "table_schema = 'box' AND table_name IN ('settings', 'nat_traverse')"));
    const auto schemas =
        builder.list(QStringLiteral("SELECT schema_name FROM information_schema.schemata WHERE schema_name = 'box'"));
    if (!builder.error().isEmpty())
        return failure(builder.error());
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
        isMade = builder.run(statement);
        if (isMade)
            undo.prepend(QStringLiteral("DROP %1 %2").arg(match.captured(1), match.captured(2)));
    }
    if (isMade && builder.fillSettings(QStringLiteral("box.settings")))
        return QString();

    const QString error = builder.error();
    for (const QString &statement : qAsConst(undo)) {
        if (!builder.run(statement))
            return failure(QStringLiteral("%1; and the half of it stays: %2").arg(error, builder.error()));
    }
    return failure(error);
}
} // namespace

QString makeStore(const StoreUrl &store)
{
    if (!store.error.isEmpty())
        return QStringLiteral("%1: %2").arg(store.shown, store.error);
    if (!QSqlDatabase::isDriverAvailable(store.driver))
        return QStringLiteral("the SQL driver %1 is not installed").arg(store.driver);
    return store.path.isEmpty() ? makeMariadb(store) : makeSqlite(store.path);
}
