#pragma once

#include <QByteArray>
#include <QStringList>

namespace datagram
{
/// The first two UUIDs in `data` (8-4-4-4-12 hexadecimal digits in braces), each empty where there is none; always two
/// texts. The search begins at the first brace that 8 hexadecimal digits follow and ends at the first zero byte behind
/// it. Takes time linear in the length: it runs on every datagram anybody sends.
QStringList findUuids(const QByteArray &data);
} // namespace datagram
