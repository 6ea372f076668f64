// The log on Qt's logging categories, which write to standard error.

#include "logger.h"

#include <QElapsedTimer>
#include <QHash>
#include <QLoggingCategory>

#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds floodSpacing = 50ms; // a line that repeats faster than this may be a flood
constexpr int floodPatience = 20;                        // and is one after so many in a row
constexpr std::chrono::milliseconds floodReport = 10s;   // how often a flood is owned up to

struct Category {
    explicit Category(const QString &text) : name(text.toUtf8()), log(name.constData(), QtInfoMsg) {}
    QByteArray name; // Qt keeps only a pointer to it
    QLoggingCategory log;
};

/// Kept for the life of the process, as Qt wants it.
const QLoggingCategory &categoryNamed(const QString &name)
{
    static auto &known = *[] {
        // Qt prefers the environment's pattern to this one.
        qSetMessagePattern(
            QStringLiteral("%{time yyyy-MM-dd hh:mm:ss.zzz} %{if-debug}debug%{endif}%{if-info}info%{endif}"
                           "%{if-warning}warning%{endif}%{if-critical}error%{endif} %{category}: %{message}"));
        return new QHash<QString, const Category *>;
    }();
    const Category *&category = known[name];
    if (category == nullptr)
        category = new Category(name);
    return category->log;
}

bool mayDriveTerminal(QChar c)
{
    switch (c.category()) {
    case QChar::Other_Control:
    case QChar::Other_Format: // among them those that turn the direction of the text
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

/// Peers and the web server put bytes into messages: none of them may begin a line or reach the terminal as a command.
QString escaped(const QString &message)
{
    QString line;
    line.reserve(message.size());
    for (const QChar c : message) {
        if (c == QLatin1Char('\\'))
            line += QLatin1String("\\\\");
        else if (c == QLatin1Char('\n'))
            line += QLatin1String("\\n");
        else if (c == QLatin1Char('\r'))
            line += QLatin1String("\\r");
        else if (c == QLatin1Char('\t'))
            line += QLatin1String("\\t");
        else if (mayDriveTerminal(c))
            line += (c.unicode() < 0x100 ? QStringLiteral("\\x%1") : QStringLiteral("\\u%1"))
                        .arg(c.unicode(), c.unicode() < 0x100 ? 2 : 4, 16, QLatin1Char('0'));
        else
            line += c;
    }
    return line;
}

void output(QtMsgType level, const QLoggingCategory &log, const QString &line)
{
    qt_message_output(level, QMessageLogContext(nullptr, 0, nullptr, log.categoryName()), line);
}

/// Counts a line that comes over and over, many times a second, instead of letting it fill the disk: a box without its
/// settings, for one, tries to register in every turn.
class Flood
{
public:
    bool swallows(QtMsgType level, const QLoggingCategory &log, const QString &line)
    {
        const bool isSame = level == m_level && &log == m_log && line == m_line;
        const bool isRepeated = isSame && !m_sinceLast.hasExpired(floodSpacing.count());
        m_sinceLast.start();
        if (!isRepeated || m_sinceReport.hasExpired(floodReport.count()))
            report();
        m_repeats = isRepeated ? m_repeats + 1 : 0;
        m_line = line;
        m_level = level;
        m_log = &log;
        if (m_repeats < floodPatience)
            return false;
        m_swallowed++;
        return true;
    }

private:
    void report()
    {
        if (m_swallowed > 0)
            output(m_level, *m_log, QStringLiteral("(the line before, %1 times more)").arg(m_swallowed));
        m_swallowed = 0;
        m_sinceReport.start();
    }
    QString m_line;
    QtMsgType m_level = QtInfoMsg;
    const QLoggingCategory *m_log = nullptr;
    int m_repeats = 0;
    int m_swallowed = 0;
    QElapsedTimer m_sinceLast;
    QElapsedTimer m_sinceReport;
};

void write(QtMsgType level, const QString &category, const QString &message)
{
    static Flood flood;
    const QLoggingCategory &log = categoryNamed(category);
    if (!log.isEnabled(level))
        return;
    const QString line = escaped(message);
    if (!flood.swallows(level, log, line))
        output(level, log, line);
}
} // namespace

void Logger::logDebug(QString category, QString message)
{
    write(QtDebugMsg, category, message);
}

void Logger::logInfo(QString category, QString message)
{
    write(QtInfoMsg, category, message);
}

void Logger::logWarning(QString category, QString message)
{
    write(QtWarningMsg, category, message);
}

void Logger::logError(QString category, QString message)
{
    write(QtCriticalMsg, category, message);
}
