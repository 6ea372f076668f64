#pragma once

#include <QtGlobal>

namespace webserver
{
constexpr quint16 port = 80; // of the box's web server on 127.0.0.1, whatever port is made known to others
} // namespace webserver
