#pragma once

#include <QString>

#include <logger.h>

/// What every call of the host's `Database` passes along, and its log with the category of this program.
namespace hostcalls
{
inline QString logCategory()
{
    return QStringLiteral("NAT");
}

/// One line in the log, of the level that the name says.
inline void logDebug(const QString &message)
{
    Logger::logDebug(logCategory(), message);
}
inline void logInfo(const QString &message)
{
    Logger::logInfo(logCategory(), message);
}
inline void logWarning(const QString &message)
{
    Logger::logWarning(logCategory(), message);
}
inline void logError(const QString &message)
{
    Logger::logError(logCategory(), message);
}

/// For protected settings and for every statement.
inline QString accessKey()
{
    return QStringLiteral("Hq4TbWn8LpRe2KsV");
}

/// For settings that are open to every program on the box: empty text, not a null one.
inline QString noAccessKey()
{
    return QLatin1String("");
}
} // namespace hostcalls
