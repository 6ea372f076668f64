#pragma once

#include <QLatin1String>

/// What every call of the host's `Logger` and `Database` passes along.
namespace hostcalls
{
constexpr QLatin1String logCategory("NAT");
constexpr QLatin1String accessKey("Hq4TbWn8LpRe2KsV"); // protected settings and every statement
constexpr QLatin1String noAccessKey(""); // empty, not null: the setting is open to every program on the box
} // namespace hostcalls
