#pragma once

#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>

#include <storeurl.h>

/// A connection of its own to a store, for what the host's library has no call for: it tells why something failed, and
/// has transactions. Closed at its end.
class StoreConnection
{
public:
    explicit StoreConnection(StoreUrl store);
    ~StoreConnection();
    StoreConnection(const StoreConnection &) = delete;
    StoreConnection &operator=(const StoreConnection &) = delete;

    /// Opens a store that is there, never a new file. False, as of run(), where that failed: error() says why.
    bool open();
    /// Opens a file that nobody writes, and leaves nothing beside it.
    bool openUnchanging();

    bool run(const QString &sql, const QStringList &params = {});
    /// Of a SELECT; every column as text, empty where there is nothing or it failed.
    QList<QStringList> rows(const QString &sql);

    bool isSqlite() const { return !m_store.path.isEmpty(); }
    /// A table as this engine's statements name it.
    QString table(const char *name) const;
    /// Empty text, or what failed last.
    const QString &error() const { return m_error; }

private:
    bool openSqlite(const QString &mode);
    bool openMariadb();
    QString name() const { return QString::number(reinterpret_cast<quintptr>(this)); }
    bool fail(const QString &reason);

    const StoreUrl m_store;
    QSqlDatabase m_database;
    QString m_error;
};
