#include "agent/tell.h"

#include <logger.h>

namespace
{
bool isNews(const QString &line)
{
    static QString last;
    const bool isNew = line != last;
    last = line;
    return isNew;
}
} // namespace

void tell(const QString &line)
{
    if (isNews(line))
        Logger::logInfo(QStringLiteral("AGENT"), line);
}

void tellError(const QString &line)
{
    if (isNews(line))
        Logger::logError(QStringLiteral("AGENT"), line);
}
