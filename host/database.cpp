// The store on Qt SQL. Connections and prepared statements are kept between uses; what is lost is opened again.

#include "database.h"

#include "storehealth.h"
#include "storeurl.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QUrl>
#include <QVariant>

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

using namespace std::chrono_literals;

namespace
{
using Rows = QList<QVector<QString>>;

constexpr char sqliteOptions[] = "QSQLITE_OPEN_URI;QSQLITE_BUSY_TIMEOUT=1000"; // ms; other programs write briefly

// Seconds, for which the caller stands still; fewer for locks, lest one pass for a server that hangs.
constexpr char mariadbOptions[] = "MYSQL_OPT_CONNECT_TIMEOUT=2;MYSQL_OPT_READ_TIMEOUT=2;MYSQL_OPT_WRITE_TIMEOUT=2";
constexpr char mariadbLockTimeouts[] = "SET SESSION lock_wait_timeout = 1, innodb_lock_wait_timeout = 1";

constexpr std::chrono::milliseconds lossNotice = 1s; // that a server has ended is told sooner, by the system

/// The connection kept under one name.
class Connection
{
public:
    explicit Connection(QString name) : m_name(std::move(name)) {}

    /// Runs one statement, opening the store where that is needed. Nothing on failure, which is then reported.
    std::optional<Rows> run(const QString &sql, const QList<QString> &params);

private:
    using Outcome = std::optional<Failure>; // none: it worked

    Outcome attempt(const QString &sql, const QList<QString> &params, Rows *rows);
    Outcome open();
    Outcome openSqlite();
    Outcome openMariadb();
    Outcome prepareSession(const QString &sql, const QList<QString> &params = {});
    Outcome execute(const QString &sql, const QList<QString> &params, Rows *rows);
    Failure failureOf(const QSqlError &error) const;
    bool isStore(const QString &address) const;
    QSqlDatabase database() const { return QSqlDatabase::database(m_name, false); }
    void close();

    QString m_name;
    QString m_address; // the BOX_DATABASE that is open
    StoreUrl m_store;
    std::pair<dev_t, ino_t> m_file; // the SQLite file that is open: another one may be put in its place
    QHash<QString, QSqlQuery> m_statements;
};

std::optional<Rows> Connection::run(const QString &sql, const QList<QString> &params)
{
    if (StoreHealth::instance().isResting(m_name))
        return std::nullopt;

    QElapsedTimer duration;
    duration.start();
    Rows rows;
    if (const Outcome failure = attempt(sql, params, &rows)) {
        close(); // the next use begins afresh, whatever was wrong
        StoreHealth::instance().failed(m_name, *failure, m_store.shown, duration.elapsed());
        return std::nullopt;
    }
    StoreHealth::instance().worked(m_name, m_store.shown);
    return rows;
}

Connection::Outcome Connection::attempt(const QString &sql, const QList<QString> &params, Rows *rows)
{
    if (isStore(qEnvironmentVariable("BOX_DATABASE"))) {
        QElapsedTimer duration;
        duration.start();
        Outcome failure = execute(sql, params, rows);
        // A server that was restarted since the last use is told only by the statement that fails, and at once. To open
        // one that hangs would hold up the caller twice.
        const bool mayBeBack = failure && failure->kind == Failure::Kind::Store;
        if (!mayBeBack || duration.hasExpired(lossNotice.count()))
            return failure;
    }
    Outcome failure = open();
    return failure ? failure : execute(sql, params, rows);
}

/// Whether what is open is the store of this address, and not a file that has gone or been replaced since.
bool Connection::isStore(const QString &address) const
{
    if (!database().isOpen() || m_address != address)
        return false;
    struct stat file = {};
    return m_store.path.isEmpty() || (stat(QFile::encodeName(m_store.path).constData(), &file) == 0 &&
                                      m_file == std::make_pair(file.st_dev, file.st_ino));
}

void Connection::close()
{
    database().close(); // before the statements: freeing one of a lost server would make the driver complain
    m_statements.clear();
}

Connection::Outcome Connection::open()
{
    close();
    m_address = qEnvironmentVariable("BOX_DATABASE");
    m_store = StoreUrl::parse(m_address);
    if (!m_store.error.isEmpty())
        return Failure{Failure::Kind::Store, m_store.error};
    if (!QSqlDatabase::isDriverAvailable(m_store.driver))
        return Failure{Failure::Kind::Store, QStringLiteral("the SQL driver %1 is not installed").arg(m_store.driver)};
    if (database().driverName() != m_store.driver) {
        if (QSqlDatabase::contains(m_name))
            QSqlDatabase::removeDatabase(m_name);
        QSqlDatabase::addDatabase(m_store.driver, m_name);
    }
    return m_store.path.isEmpty() ? openMariadb() : openSqlite();
}

Connection::Outcome Connection::openSqlite()
{
    struct stat file = {};
    if (stat(QFile::encodeName(m_store.path).constData(), &file) != 0)
        return Failure{Failure::Kind::Store, QString::fromLocal8Bit(std::strerror(errno))};
    m_file = {file.st_dev, file.st_ino};

    // The statements name the database `box`, so the file is attached under that name. It is never made here: an empty
    // store would only hide that the real one is missing.
    QSqlDatabase sqlite = database();
    sqlite.setDatabaseName(QStringLiteral(":memory:"));
    sqlite.setConnectOptions(QLatin1String(sqliteOptions));
    if (!sqlite.open())
        return Failure{Failure::Kind::Store, sqlite.lastError().text()};
    QUrl url = QUrl::fromLocalFile(QFileInfo(m_store.path).absoluteFilePath());
    url.setQuery(QStringLiteral("mode=rw"));
    Outcome failure =
        prepareSession(QStringLiteral("ATTACH DATABASE ? AS box"), {QString::fromLatin1(url.toEncoded())});
    if (!failure && QFileInfo(m_store.path).isWritable())
        failure = prepareSession(QStringLiteral("PRAGMA box.journal_mode = WAL"));
    return failure ? failure : prepareSession(QStringLiteral("PRAGMA box.synchronous = NORMAL"));
}

Connection::Outcome Connection::openMariadb()
{
    QSqlDatabase mariadb = database();
    mariadb.setHostName(m_store.host);
    mariadb.setPort(m_store.port);
    mariadb.setUserName(m_store.user);
    mariadb.setPassword(m_store.password);
    mariadb.setDatabaseName(QStringLiteral("box"));
    mariadb.setConnectOptions(
        mariadbOptions + (m_store.socket.isEmpty() ? QString() : QStringLiteral(";UNIX_SOCKET=") + m_store.socket));
    if (!mariadb.open())
        return Failure{Failure::Kind::Store, mariadb.lastError().text()};
    return prepareSession(QLatin1String(mariadbLockTimeouts));
}

/// What fails while the store is opened, be it a lock, fails for every use.
Connection::Outcome Connection::prepareSession(const QString &sql, const QList<QString> &params)
{
    Rows ignored;
    Outcome failure = execute(sql, params, &ignored);
    if (failure)
        failure->kind = Failure::Kind::Store;
    return failure;
}

/// Sets the rows only when all of them are there.
Connection::Outcome Connection::execute(const QString &sql, const QList<QString> &params, Rows *rows)
{
    if (!m_statements.contains(sql)) {
        QSqlQuery prepared(database());
        prepared.setForwardOnly(true);
        if (!prepared.prepare(sql))
            return failureOf(prepared.lastError());
        m_statements.insert(sql, prepared);
    }
    QSqlQuery query = m_statements.value(sql); // shares the prepared statement
    for (int i = 0; i < params.size(); i++)
        query.bindValue(i, params.at(i));
    if (!query.exec())
        return failureOf(query.lastError());

    // Rows share the texts in which they do not differ from the row before: of a long table that is most of them.
    Rows fetched;
    QVector<QString> row(query.record().count());
    while (query.next()) {
        for (int column = 0; column < row.size(); column++) {
            const QString text = query.value(column).toString();
            if (text != row.at(column))
                row[column] = text;
        }
        fetched.append(row);
    }
    const QSqlError cutShort = query.lastError();
    query.finish(); // an unfinished SELECT would hold its lock on the file
    if (cutShort.isValid())
        return failureOf(cutShort);
    *rows = fetched;
    return {};
}

Failure Connection::failureOf(const QSqlError &error) const
{
    using Kind = Failure::Kind;
    static const QHash<QString, Kind> sqlite{{QStringLiteral("5"), Kind::Lock}};      // "database is locked"
    static const QHash<QString, Kind> mariadb{{QStringLiteral("1205"), Kind::Lock},   // "lock wait timeout exceeded"
                                              {QStringLiteral("2006"), Kind::Store},  // "gone away"
                                              {QStringLiteral("2013"), Kind::Store}}; // "lost connection"
    const auto &kinds = m_store.path.isEmpty() ? mariadb : sqlite;
    return {kinds.value(error.nativeErrorCode(), Kind::Statement), error.text()};
}

/// Kept for the life of the process.
Connection &connectionNamed(const QString &name)
{
    static auto &connections = *new QHash<QString, Connection *>;
    Connection *&connection = connections[name];
    if (connection == nullptr)
        connection = new Connection(name);
    return *connection;
}
} // namespace

Database::Database(QString connectionName) : m_name(std::move(connectionName)) {}

Database::~Database() = default;

/// A store that does not answer changes no value: a relay that took its key for gone would send in clear. What the
/// store said last counts for the whole process, whichever connection asked. A value that was deleted is empty at once.
QString Database::getSetting(QString name, QString accessKey)
{
    static auto &lastRead = *new QHash<QStringList, QString>;
    QString &value = lastRead[{qEnvironmentVariable("BOX_DATABASE"), name, accessKey}];
    const auto rows = connectionNamed(m_name).run(
        QStringLiteral("SELECT value FROM `box`.`settings` WHERE name = ? AND access_key IN ('', ?)"),
        {name, accessKey});
    if (rows)
        value = rows->isEmpty() ? QString() : rows->constFirst().constFirst();
    return value;
}

void Database::performQuery(QString sql, QList<QString> params, QString accessKey)
{
    performQueryWithResult(sql, params, accessKey);
}

QList<QVector<QString>> Database::performQueryWithResult(QString sql, QList<QString> params, QString accessKey)
{
    Q_UNUSED(accessKey) // protects single settings; the tables are open to whoever can open the store
    return connectionNamed(m_name).run(sql, params).value_or(Rows());
}
