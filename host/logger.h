#pragma once

#include <QString>

/// The host's log. One message is one line; QT_LOGGING_RULES chooses the levels of a category (info and above unless
/// it says otherwise), QT_MESSAGE_PATTERN forms the line.
class Logger
{
public:
    static void logDebug(QString category, QString message);
    static void logInfo(QString category, QString message);
    static void logWarning(QString category, QString message);
    static void logError(QString category, QString message);
};
