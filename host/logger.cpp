// The log on Qt's logging categories, which write to standard error.

#include "logger.h"

#include <QHash>
#include <QLoggingCategory>

namespace
{
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

void write(QtMsgType level, const QString &category, const QString &message)
{
    const QLoggingCategory &log = categoryNamed(category);
    if (log.isEnabled(level))
        qt_message_output(level, QMessageLogContext(nullptr, 0, nullptr, log.categoryName()), escaped(message));
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
