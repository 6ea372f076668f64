// Results on standard output, for persons and for programs.

#include "admin/print.h"

#include "handover/output.h"

#include <algorithm>

namespace
{
/// Other programs fill the store too: none of what they write may reach the terminal as a command, or begin a line.
bool isShown(QChar c)
{
    return c.isPrint() && c.category() != QChar::Separator_Line && c.category() != QChar::Separator_Paragraph;
}
} // namespace

QString print(const QByteArray &text)
{
    Output output;
    output.write(text);
    return output.error();
}

QByteArray toTable(const QList<QStringList> &rows)
{
    QList<int> widths;
    for (const QStringList &row : rows) {
        for (int column = 0; column < row.size(); column++) {
            if (column == widths.size())
                widths.append(0);
            widths[column] = std::max(widths.at(column), row.at(column).size());
        }
    }
    QString table;
    for (const QStringList &row : rows) {
        QString line;
        for (int column = 0; column < row.size(); column++)
            line += row.at(column).leftJustified(widths.at(column)) + QLatin1String("  ");
        std::replace_if(
            line.begin(), line.end(), [](QChar c) { return !isShown(c); }, QLatin1Char('?'));
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        table += line + QLatin1Char('\n');
    }
    return table.toLocal8Bit();
}

QByteArray toJson(const QJsonDocument &document)
{
    QString escaped;
    const QString text = QString::fromUtf8(document.toJson());
    for (const QChar c : text)
        escaped += isShown(c) || c == QLatin1Char('\n')
                       ? QString(c)
                       : QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    return escaped.toUtf8();
}
