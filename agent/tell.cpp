#include "agent/tell.h"

#include <logger.h>

void tell(const QString &line)
{
    static QString last;
    if (line == last)
        return;
    last = line;
    Logger::logInfo(QStringLiteral("AGENT"), line);
}
