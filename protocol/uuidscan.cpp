// Finds the UUIDs that tell who sent a datagram and for whom it is; they stand at other offsets in every kind.

#include "protocol/uuidscan.h"

#include "protocol/datagram.h"

#include <algorithm>

namespace
{
constexpr int firstGroup = 8; // hexadecimal digits behind the brace

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool startsUuid(const QByteArray &data, int brace)
{
    const auto *digits = data.cbegin() + brace + 1;
    return data.cend() - digits >= firstGroup && std::all_of(digits, digits + firstGroup, isHexDigit);
}

bool isUuid(const QByteArray &data, int brace)
{
    static constexpr char shape[] = "{hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh}";
    static_assert(sizeof shape - 1 == datagram::uuidLength);
    return data.size() - brace >= datagram::uuidLength &&
           std::equal(shape, shape + datagram::uuidLength, data.cbegin() + brace,
                      [](char expected, char c) { return expected == 'h' ? isHexDigit(c) : expected == c; });
}
} // namespace

QStringList datagram::findUuids(const QByteArray &data)
{
    QString found[2] = {QLatin1String(""), QLatin1String("")};
    int brace = data.indexOf('{');
    while (brace >= 0 && !startsUuid(data, brace))
        brace = data.indexOf('{', brace + 1);

    // A zero byte hides what stands behind it, also a second UUID.
    const int end = brace < 0 ? -1 : data.indexOf('\0', brace);
    for (int count = 0; count < 2 && brace >= 0 && (end < 0 || brace < end);) {
        const bool complete = isUuid(data, brace);
        if (complete)
            found[count++] = QString::fromLatin1(data.constData() + brace, uuidLength);
        brace = data.indexOf('{', brace + (complete ? uuidLength : 1));
    }
    return {found[0], found[1]};
}
