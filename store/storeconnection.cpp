#include "store/storeconnection.h"

#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QUrl>
#include <QVariant>

#include <utility>

namespace
{
constexpr char mariadbOptions[] =
    "MYSQL_OPT_CONNECT_TIMEOUT=5;MYSQL_OPT_READ_TIMEOUT=30;MYSQL_OPT_WRITE_TIMEOUT=30"; // s
} // namespace

StoreConnection::StoreConnection(StoreUrl store) : m_store(std::move(store)) {}

StoreConnection::~StoreConnection()
{
    m_database = QSqlDatabase(); // the last one that holds it must be gone before it is removed
    QSqlDatabase::removeDatabase(name());
}

bool StoreConnection::open()
{
    if (!m_store.error.isEmpty())
        return fail(m_store.error);
    if (!QSqlDatabase::isDriverAvailable(m_store.driver))
        return fail(QStringLiteral("the SQL driver %1 is not installed").arg(m_store.driver));
    return isSqlite() ? openSqlite(QStringLiteral("mode=rw")) : openMariadb();
}

bool StoreConnection::openUnchanging()
{
    return openSqlite(QStringLiteral("mode=ro&immutable=1"));
}

bool StoreConnection::openSqlite(const QString &mode)
{
    QUrl url = QUrl::fromLocalFile(QFileInfo(m_store.path).absoluteFilePath());
    url.setQuery(mode);
    if (!QFileInfo::exists(m_store.path))
        return fail(QStringLiteral("there is no such file"));
    m_database = QSqlDatabase::addDatabase(m_store.driver, name());
    m_database.setDatabaseName(QString::fromLatin1(url.toEncoded()));
    m_database.setConnectOptions(QStringLiteral("QSQLITE_OPEN_URI"));
    return m_database.open() || fail(m_database.lastError().databaseText());
}

bool StoreConnection::openMariadb()
{
    m_database = QSqlDatabase::addDatabase(m_store.driver, name());
    m_database.setHostName(m_store.host);
    m_database.setPort(m_store.port);
    m_database.setUserName(m_store.user);
    m_database.setPassword(m_store.password);
    m_database.setConnectOptions(
        QLatin1String(mariadbOptions) +
        (m_store.socket.isEmpty() ? QString() : QStringLiteral(";UNIX_SOCKET=") + m_store.socket));
    return m_database.open() || fail(m_database.lastError().databaseText());
}

bool StoreConnection::run(const QString &sql, const QStringList &params)
{
    QSqlQuery query(m_database);
    if (!query.prepare(sql))
        return fail(query.lastError().databaseText());
    for (const QString &param : params)
        query.addBindValue(param);
    return query.exec() || fail(query.lastError().databaseText());
}

QList<QStringList> StoreConnection::rows(const QString &sql)
{
    QList<QStringList> rows;
    QSqlQuery query(m_database);
    query.setForwardOnly(true);
    query.exec(sql);
    while (query.next()) {
        QStringList row;
        for (int column = 0; column < query.record().count(); column++)
            row.append(query.value(column).toString());
        rows.append(row);
    }
    if (!query.lastError().isValid())
        return rows;
    fail(query.lastError().databaseText());
    return {};
}

QString StoreConnection::table(const char *name) const
{
    return QLatin1String(isSqlite() ? "main." : "box.") + QLatin1String(name);
}

bool StoreConnection::fail(const QString &reason)
{
    m_error = reason;
    return false;
}
