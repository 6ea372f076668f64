#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

/// The commands of nat-relay-admin. Each prints its result and gives empty text, or prints nothing and gives one line
/// that says what went wrong.
namespace admin
{
struct Request {
    QStringList words;              // behind the command's name
    QHash<QString, QString> values; // of the options that are given
    QStringList flags;              // those that are set

    bool isSet(const char *flag) const { return flags.contains(QLatin1String(flag)); }
};

QString init(const Request &request);
QString get(const Request &request);
QString set(const Request &request);

QString backup(const Request &request);
QString restore(const Request &request);
QString upgrade(const Request &request);
QString wait(const Request &request);

QString join(const Request &request);
QString leave(const Request &request);

QString peers(const Request &request);
QString addPeer(const Request &request);
QString namePeer(const Request &request);
QString connectPeer(const Request &request);
QString removePeer(const Request &request);
} // namespace admin
