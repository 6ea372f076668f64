// Writes results. What a peer is handed holds the key, so it is never readable by others, not even for a moment.

#include "admin/output.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace
{
/// Other programs fill the store too: none of what they write may reach the terminal as a command, or begin a line.
bool isShown(QChar c)
{
    return c.isPrint() && c.category() != QChar::Separator_Line && c.category() != QChar::Separator_Paragraph;
}
} // namespace

Output::Output(const QString &path) : m_name(path.isEmpty() ? QStringLiteral("standard output") : path)
{
    if (path.isEmpty())
        return;
    const QByteArray name = QFile::encodeName(path);
    m_descriptor = open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (m_descriptor < 0 && errno == EEXIST)
        m_error = QStringLiteral("%1 exists already and stays as it is; name a new file").arg(path);
    else if (m_descriptor < 0)
        fail();
    else
        m_path = name;
}

Output::~Output()
{
    if (m_descriptor != STDOUT_FILENO && m_descriptor >= 0)
        close(m_descriptor);
    if (!m_path.isEmpty())
        unlink(m_path.constData());
}

bool Output::write(const QByteArray &text)
{
    int written = 0;
    while (m_error.isEmpty() && written < text.size()) {
        const ssize_t step =
            ::write(m_descriptor, text.constData() + written, static_cast<size_t>(text.size() - written));
        if (step < 0 && errno != EINTR)
            fail();
        else if (step > 0)
            written += static_cast<int>(step);
    }
    if (m_error.isEmpty() && !m_path.isEmpty() &&
        (fsync(m_descriptor) != 0 || close(std::exchange(m_descriptor, -1)) != 0))
        fail();
    if (m_error.isEmpty())
        m_path.clear();
    return m_error.isEmpty();
}

void Output::fail()
{
    m_error = QStringLiteral("cannot write %1: %2").arg(m_name, QString::fromLocal8Bit(std::strerror(errno)));
}

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
