// All of it may come from elsewhere: names of servers and why they refuse. So the page escapes every text, and the
// lines have no control characters.

#include "client/statustext.h"

#include <QDateTime>
#include <QJsonArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <algorithm>

namespace
{
struct Row {
    QString name;
    QString value;
};

QString text(const QJsonObject &object, const char *name)
{
    return object[QLatin1String(name)].toString();
}

double number(const QJsonObject &object, const char *name)
{
    return object[QLatin1String(name)].toDouble();
}

QString withUnit(double value, int digits, const char *unit)
{
    return QString::number(value, 'f', digits) + QLatin1Char(' ') + QLatin1String(unit);
}

QString bytes(double count)
{
    constexpr double kilo = 1000;
    constexpr double mega = kilo * kilo;
    return count < mega ? withUnit(count / kilo, 0, "kB") : withUnit(count / mega, 1, "MB");
}

QString headline(const QJsonObject &status)
{
    const QString state = text(status, "state");
    if (state == QLatin1String("open"))
        return QStringLiteral("The box is reached ") + text(status, "how");
    if (state == QLatin1String("silent"))
        return QStringLiteral("There is no sign of the box any more; the next request looks for it anew");
    if (state == QLatin1String("opening"))
        return QStringLiteral("The box is being looked for");
    return QStringLiteral("The box is not reached");
}

QString since(const QJsonObject &status)
{
    const QDateTime begin = QDateTime::fromString(text(status, "since"), Qt::ISODate);
    return QStringLiteral("%1, opened within %2")
        .arg(begin.toLocalTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")),
             withUnit(number(status, "openingTime"), 1, "s"));
}

QString router(const QJsonObject &status, const char *whose)
{
    const QJsonObject routers = status[QLatin1String("routers")].toObject();
    const QJsonObject its = routers[QLatin1String(whose)].toObject();
    QStringList seen;
    const QJsonArray addresses = its[QLatin1String("seen")].toArray();
    for (const QJsonValue &address : addresses)
        seen.append(address.toString());
    return text(its, "text") +
           (seen.isEmpty() ? QString() : QStringLiteral(" (seen at %1)").arg(seen.join(QLatin1String(", "))));
}

QList<Row> rows(const QJsonObject &status)
{
    QList<Row> rows;
    const QString reason = text(status, "reason");
    if (!reason.isEmpty())
        rows.append({QStringLiteral("Likeliest cause"), reason});
    if (!text(status, "since").isEmpty())
        rows.append({QStringLiteral("Since"), since(status)});
    if (status[QLatin1String("isImproving")].toBool())
        rows.append({QStringLiteral("Under way"), QStringLiteral("a direct way is still looked for")});
    if (text(status, "reach") != QLatin1String("same-network")) { // where none stands between
        rows.append({QStringLiteral("Your router"), router(status, "peer")});
        rows.append({QStringLiteral("The box's router"), router(status, "box")});
    }
    constexpr int perSecond = 1000;
    if (status.contains(QLatin1String("roundTrip")))
        rows.append({QStringLiteral("There and back"), withUnit(perSecond * number(status, "roundTrip"), 0, "ms")});
    if (number(status, "received") > 0)
        rows.append(
            {QStringLiteral("Rate"), QStringLiteral("%1/s in the last seconds, %2 in all")
                                         .arg(bytes(number(status, "rate")), bytes(number(status, "received")))});
    return rows;
}

QList<Row> tried(const QJsonObject &status)
{
    QList<Row> rows;
    const QJsonArray attempts = status[QLatin1String("tried")].toArray();
    for (const QJsonValue &value : attempts) {
        const QJsonObject attempt = value.toObject();
        const QString begin = QString::number(number(attempt, "begin"), 'f', 1);
        const QString time = attempt.contains(QLatin1String("end"))
                                 ? QStringLiteral("%1 to %2").arg(begin, withUnit(number(attempt, "end"), 1, "s"))
                                 : QStringLiteral("from %1 s on").arg(begin);
        rows.append({text(attempt, "what"), QStringLiteral("%1 (%2)").arg(text(attempt, "outcome"), time)});
    }
    return rows;
}

QString printable(QString line)
{
    std::replace_if(
        line.begin(), line.end(), [](QChar character) { return !character.isPrint(); }, QLatin1Char('?'));
    return line + QLatin1Char('\n');
}

QString list(const QList<Row> &rows)
{
    QString html = QStringLiteral("<dl>\n");
    for (const Row &row : rows)
        html += QStringLiteral("<dt>%1</dt><dd>%2</dd>\n").arg(row.name.toHtmlEscaped(), row.value.toHtmlEscaped());
    return html + QStringLiteral("</dl>\n");
}
} // namespace

QByteArray statustext::plain(const QJsonObject &status)
{
    constexpr int column = 18;
    QString lines = printable(headline(status));
    const QList<Row> all = rows(status);
    for (const Row &row : all)
        lines += printable(QStringLiteral("  ") + row.name.leftJustified(column) + row.value);
    const QList<Row> attempts = tried(status);
    if (!attempts.isEmpty())
        lines += QStringLiteral("Tried:\n");
    for (const Row &row : attempts)
        lines += printable(QStringLiteral("  %1: %2").arg(row.name, row.value));
    return lines.toUtf8();
}

QByteArray statustext::page(const QJsonObject &status)
{
    static const QString head = QStringLiteral(R"(<!DOCTYPE html>
<html lang="en">
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<meta http-equiv="refresh" content="10">
<title>nat-peer: how the box is reached</title>
<style>
body { font: 100%/1.5 system-ui, sans-serif; max-width: 42rem; margin: 1.5rem auto; padding: 0 1rem; overflow-wrap: anywhere }
h1 { font-size: 1.4rem; line-height: 1.3 }
h2 { font-size: 1.1rem; margin-top: 2rem }
dt { font-weight: bold; margin-top: .6rem }
dd { margin: 0 }
</style>
)");
    const QList<Row> attempts = tried(status);
    return QStringLiteral("%1<h1>%2</h1>\n%3%4<p><a href=\"status.json\">The same for programs</a></p>\n</html>\n")
        .arg(head, headline(status).toHtmlEscaped(), list(rows(status)),
             attempts.isEmpty() ? QString() : QStringLiteral("<h2>What was tried</h2>\n") + list(attempts))
        .toUtf8();
}
