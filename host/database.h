#pragma once

#include <QList>
#include <QString>
#include <QVector>

/// One use of the host's store of settings and peers; made where it is needed and dropped right after. Never throws
/// and never stops its caller: a store that cannot be reached, is locked or is no database at all gives empty results,
/// with one error line when it starts to fail and one info line when all that failed has worked again. The environment
/// variable BOX_DATABASE names the store; see storeurl.h.
class Database
{
public:
    /// Uses the connection kept under this name, or opens one at the first call.
    explicit Database(QString connectionName);
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    /// Value of a setting that is open or whose access key is `accessKey`; empty text for any other.
    QString getSetting(QString name, QString accessKey);

    /// Runs a statement that returns no rows; `params` are bound to its "?" in order, as text.
    void performQuery(QString sql, QList<QString> params, QString accessKey);

    /// Runs a SELECT: its rows, every column as text. Empty when there are none, and on failure.
    QList<QVector<QString>> performQueryWithResult(QString sql, QList<QString> params, QString accessKey);

private:
    QString m_name;
};
