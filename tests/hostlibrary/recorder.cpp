// A host library that writes down every call, one a line.

#include <QMap>
#include <QStringList>

#include <cstdio>

#include <database.h>
#include <logger.h>

namespace
{
void record(const QStringList &call)
{
    QStringList words;
    for (const QString &word : call)
        words += word.isNull() ? QStringLiteral("(null)") : word;
    std::puts(qPrintable(words.join(QLatin1Char('|'))));
    std::fflush(stdout);
}
} // namespace

void Logger::logDebug(QString category, QString message) { record({"debug", category, message}); }
void Logger::logInfo(QString category, QString message) { record({"info", category, message}); }
void Logger::logWarning(QString category, QString message) { record({"warning", category, message}); }
void Logger::logError(QString category, QString message) { record({"error", category, message}); }

Database::Database(QString connectionName) : m_name(connectionName) { record({"open", m_name}); }
Database::~Database() { record({"close", m_name}); }

QString Database::getSetting(QString name, QString accessKey)
{
    record({"get", name, accessKey});
    static const QMap<QString, QString> settings{{"uuid", "{b}"},
                                                 {"nat_udpport", "5000"},
                                                 {"nat_udpportdiscover", "5001"},
                                                 {"nat_server_update_interval", "300"},
                                                 {"server_hostname", "no such name"}};
    return settings.value(name);
}

void Database::performQuery(QString sql, QList<QString> params, QString accessKey)
{
    record({"query", sql, params.join(QLatin1Char(',')), accessKey});
}

QList<QVector<QString>> Database::performQueryWithResult(QString sql, QList<QString> params, QString accessKey)
{
    record({"select", sql, QString::number(params.size()), accessKey});
    return {{"1", "192.0.2.1", "{p}", "1", "4000", "", "4001"}}; // connected, and never heard of
}
