#pragma once

#include <QString>

/// What every call of the host's `Logger` and `Database` passes along.
namespace hostcalls
{
inline QString logCategory()
{
    return QStringLiteral("NAT");
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
