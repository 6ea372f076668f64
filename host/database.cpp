// The store on Qt SQL. Connections and prepared statements are kept between uses; what is lost is opened again.

#include "database.h"

#include "logger.h"
#include "storeurl.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>
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
#include <utility>

using namespace std::chrono_literals;

namespace
{
using Rows = QList<QVector<QString>>;

constexpr char sqliteOptions[] = "QSQLITE_OPEN_URI;QSQLITE_BUSY_TIMEOUT=1000"; // ms; other programs write briefly
constexpr char sqliteBusy[] = "5"; // its result code for a lock that another program holds
constexpr char mariadbOptions[] =  // s; the caller stands still meanwhile
    "MYSQL_OPT_CONNECT_TIMEOUT=2;MYSQL_OPT_READ_TIMEOUT=2;MYSQL_OPT_WRITE_TIMEOUT=2";
constexpr std::chrono::milliseconds lockMemory = 10s; // a lock that lasts longer meets another use anyway
constexpr int restFactor = 4; // rest after a failure, in times its length: a store that hangs takes a fifth of the time

/// Logs the first failure and the return of the store, however many uses fail in between.
class Health
{
public:
    static Health &ofStore()
    {
        static Health health;
        return health;
    }
    void failed(const QString &what, const QString &store, const QString &error, bool isLock)
    {
        const bool isNews = what == opening() ? !m_failing.contains(what) : m_failing.isEmpty();
        if (isNews)
            Logger::logError(logCategory(), QStringLiteral("Store %1 fails: %2").arg(store, error));
        m_failing.insert(what);
        if (isLock) {
            m_locked.insert(what);
            m_sinceLock.start();
        }
    }
    /// `use` works, and so the store can be opened again.
    void worked(const QString &use, const QString &store)
    {
        if (m_failing.isEmpty())
            return;
        const bool isOpenAgain = m_failing.remove(opening());
        m_failing.remove(use);
        // A use that met a lock may not come again for hours; others tell by then that the lock has gone.
        if (m_sinceLock.isValid() && m_sinceLock.hasExpired(lockMemory.count()))
            m_failing -= std::exchange(m_locked, {});
        if (isOpenAgain || m_failing.isEmpty())
            Logger::logInfo(logCategory(), QStringLiteral("Store %1 works again").arg(store));
    }
    /// Fails and returns for all uses at once.
    static QString opening() { return QStringLiteral("(opening)"); }

private:
    static QString logCategory() { return QStringLiteral("STORE"); }
    QSet<QString> m_failing; // uses, by their connection's name
    QSet<QString> m_locked;
    QElapsedTimer m_sinceLock;
};

/// The connection kept under one name.
class Connection
{
public:
    explicit Connection(QString name) : m_name(std::move(name)) {}

    /// Runs one statement, opening the store where that is needed; false on failure, which is then reported.
    bool run(const QString &sql, const QList<QString> &params, Rows *rows);

private:
    bool attempt(const QString &sql, const QList<QString> &params, Rows *rows);
    bool open();
    bool openSqlite();
    bool openMariadb();
    bool execute(const QString &sql, const QList<QString> &params, Rows *rows);
    bool isStore(const QString &address) const;
    bool isServerLost() const;
    QSqlDatabase database() const { return QSqlDatabase::database(m_name, false); }
    void close();
    bool fail(const QString &error)
    {
        m_error = error;
        return false;
    }

    QString m_name;
    QString m_address; // the BOX_DATABASE that is open
    StoreUrl m_store;
    std::pair<dev_t, ino_t> m_file; // the SQLite file that is open: another one may be put in its place
    QHash<QString, QSqlQuery> m_statements;
    QString m_failedUse; // what failed: this name, or opening the store
    QString m_error;
    QString m_errorCode;
    QElapsedTimer m_sinceFailure;
    qint64 m_rest = 0; // ms
};

bool Connection::run(const QString &sql, const QList<QString> &params, Rows *rows)
{
    if (m_sinceFailure.isValid() && !m_sinceFailure.hasExpired(m_rest))
        return false;

    QElapsedTimer duration;
    duration.start();
    if (attempt(sql, params, rows)) {
        m_sinceFailure.invalidate();
        Health::ofStore().worked(m_name, m_store.shown);
        return true;
    }
    close(); // the next use begins afresh, whatever was wrong
    m_rest = restFactor * duration.elapsed();
    m_sinceFailure.start();
    const bool isLock = m_failedUse == m_name && m_errorCode == QLatin1String(sqliteBusy);
    Health::ofStore().failed(m_failedUse, m_store.shown, m_error, isLock);
    return false;
}

bool Connection::attempt(const QString &sql, const QList<QString> &params, Rows *rows)
{
    const bool wasOpen = isStore(qEnvironmentVariable("BOX_DATABASE"));
    m_failedUse = Health::opening();
    if (!wasOpen && !open())
        return false;
    m_failedUse = m_name;
    if (execute(sql, params, rows))
        return true;
    if (!wasOpen || !isServerLost())
        return false;

    // A server that was restarted since the last use is told only by the statement that fails.
    m_failedUse = Health::opening();
    return open() && execute(sql, params, rows);
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

bool Connection::isServerLost() const
{
    static const QSet<QString> lost{QStringLiteral("2006"), QStringLiteral("2013")}; // "gone away", "lost connection"
    return m_store.path.isEmpty() && lost.contains(m_errorCode);
}

void Connection::close()
{
    database().close(); // before the statements: freeing one of a lost server would make the driver complain
    m_statements.clear();
}

bool Connection::open()
{
    close();
    m_address = qEnvironmentVariable("BOX_DATABASE");
    m_store = StoreUrl::parse(m_address);
    if (!m_store.error.isEmpty())
        return fail(m_store.error);
    if (!QSqlDatabase::isDriverAvailable(m_store.driver))
        return fail(QStringLiteral("the SQL driver %1 is not installed").arg(m_store.driver));
    if (database().driverName() != m_store.driver) {
        if (QSqlDatabase::contains(m_name))
            QSqlDatabase::removeDatabase(m_name);
        QSqlDatabase::addDatabase(m_store.driver, m_name);
    }
    return m_store.path.isEmpty() ? openMariadb() : openSqlite();
}

bool Connection::openSqlite()
{
    struct stat file = {};
    if (stat(QFile::encodeName(m_store.path).constData(), &file) != 0)
        return fail(QString::fromLocal8Bit(std::strerror(errno)));
    m_file = {file.st_dev, file.st_ino};

    // The statements name the database `box`, so the file is attached under that name. It is never made here: an empty
    // store would only hide that the real one is missing.
    QSqlDatabase sqlite = database();
    sqlite.setDatabaseName(QStringLiteral(":memory:"));
    sqlite.setConnectOptions(QLatin1String(sqliteOptions));
    if (!sqlite.open())
        return fail(sqlite.lastError().text());
    QUrl url = QUrl::fromLocalFile(QFileInfo(m_store.path).absoluteFilePath());
    url.setQuery(QStringLiteral("mode=rw"));
    return execute(QStringLiteral("ATTACH DATABASE ? AS box"), {QString::fromLatin1(url.toEncoded())}, nullptr) &&
           (!QFileInfo(m_store.path).isWritable() ||
            execute(QStringLiteral("PRAGMA box.journal_mode = WAL"), {}, nullptr)) &&
           execute(QStringLiteral("PRAGMA box.synchronous = NORMAL"), {}, nullptr);
}

bool Connection::openMariadb()
{
    QSqlDatabase mariadb = database();
    mariadb.setHostName(m_store.host);
    mariadb.setPort(m_store.port);
    mariadb.setUserName(m_store.user);
    mariadb.setPassword(m_store.password);
    mariadb.setDatabaseName(QStringLiteral("box"));
    mariadb.setConnectOptions(
        mariadbOptions + (m_store.socket.isEmpty() ? QString() : QStringLiteral(";UNIX_SOCKET=") + m_store.socket));
    return mariadb.open() || fail(mariadb.lastError().text());
}

bool Connection::execute(const QString &sql, const QList<QString> &params, Rows *rows)
{
    const auto failStatement = [this](const QSqlError &error) {
        m_errorCode = error.nativeErrorCode();
        return fail(error.text());
    };
    if (!m_statements.contains(sql)) {
        QSqlQuery prepared(database());
        prepared.setForwardOnly(true);
        if (!prepared.prepare(sql))
            return failStatement(prepared.lastError());
        m_statements.insert(sql, prepared);
    }
    QSqlQuery query = m_statements.value(sql); // shares the prepared statement
    for (int i = 0; i < params.size(); i++)
        query.bindValue(i, params.at(i));
    if (!query.exec())
        return failStatement(query.lastError());

    // Rows share the texts in which they do not differ from the row before: of a long table that is most of them.
    QVector<QString> row(query.record().count());
    while (rows != nullptr && query.next()) {
        for (int column = 0; column < row.size(); column++) {
            const QString text = query.value(column).toString();
            if (text != row.at(column))
                row[column] = text;
        }
        rows->append(row);
    }
    const QSqlError cutShort = query.lastError();
    query.finish(); // an unfinished SELECT would hold its lock on the file
    return cutShort.isValid() ? failStatement(cutShort) : true;
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

QString Database::getSetting(QString name, QString accessKey)
{
    const auto rows = performQueryWithResult(
        QStringLiteral("SELECT value FROM `box`.`settings` WHERE name = ? AND access_key IN ('', ?)"),
        {name, accessKey}, accessKey);
    return rows.isEmpty() ? QString() : rows.constFirst().constFirst();
}

void Database::performQuery(QString sql, QList<QString> params, QString accessKey)
{
    performQueryWithResult(sql, params, accessKey);
}

QList<QVector<QString>> Database::performQueryWithResult(QString sql, QList<QString> params, QString accessKey)
{
    Q_UNUSED(accessKey) // protects single settings; the tables are open to whoever can open the store
    Rows rows;
    return connectionNamed(m_name).run(sql, params, &rows) ? rows : Rows();
}
