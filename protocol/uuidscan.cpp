// Finds the UUIDs that tell who sent a datagram and for whom it is; they stand at other offsets in every kind.

#include "protocol/uuidscan.h"

#include "protocol/datagram.h"

#include <algorithm>
#include <cstring>

namespace
{
constexpr int firstGroup = 8; // hexadecimal digits behind the brace

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool startsUuid(const char *brace, const char *end)
{
    return end - brace > firstGroup && std::all_of(brace + 1, brace + 1 + firstGroup, isHexDigit);
}

bool isUuid(const char *brace, const char *end)
{
    static constexpr char shape[] = "{hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh}";
    static_assert(sizeof shape - 1 == datagram::uuidLength);
    return end - brace >= datagram::uuidLength &&
           std::equal(shape, shape + datagram::uuidLength, brace,
                      [](char expected, char c) { return expected == 'h' ? isHexDigit(c) : expected == c; });
}

/// Where `c` first stands, or `end`. The system's search is many times faster than the array's own.
const char *find(const char *begin, const char *end, char c)
{
    const void *at = std::memchr(begin, c, static_cast<size_t>(end - begin));
    return at != nullptr ? static_cast<const char *>(at) : end;
}
} // namespace

QStringList datagram::findUuids(const QByteArray &data)
{
    const char *end = data.cend();
    const char *brace = find(data.cbegin(), end, '{');
    while (brace != end && !startsUuid(brace, end))
        brace = find(brace + 1, end, '{');

    QStringList found;
    found.reserve(2);
    while (brace != end) {
        const bool complete = isUuid(brace, end);
        if (complete)
            found.append(QString::fromLatin1(brace, uuidLength));
        if (found.size() == 2)
            return found;
        const char *behind = brace + (complete ? uuidLength : 1);
        brace = find(behind, end, '{');
        if (find(behind, brace, '\0') != brace) // a zero byte hides what stands behind it, also a second UUID
            break;
    }
    while (found.size() < 2)
        found.append(QLatin1String(""));
    return found;
}
