// The checks of values that the box and its peers must agree on.

#include "handover/valuecheck.h"

#include "protocol/cipher.h"
#include "protocol/uuidscan.h"

#include <QByteArray>
#include <QRegularExpression>

#include <algorithm>

namespace
{
constexpr int longestHostName = 253; // characters, RFC 1035
constexpr int longKeyLength = 32;    // bytes
constexpr int longestPeerName = 60;  // characters

QString checkDigits(const QString &text, const QString &name, int bytes)
{
    const QRegularExpression hex(QStringLiteral("\\A[0-9a-fA-F]{%1}\\z").arg(2 * bytes));
    return hex.match(text).hasMatch() ? QString()
                                      : QStringLiteral("%1 must be %2 hexadecimal digits").arg(name).arg(2 * bytes);
}
} // namespace

QString valuecheck::uuid(const QString &text, const QString &name)
{
    return !text.isEmpty() && datagram::findUuids(text.toUtf8()).constFirst() == text
               ? QString()
               : QStringLiteral("%1 must be a UUID in braces like {01234567-89ab-cdef-0123-456789abcdef}").arg(name);
}

QString valuecheck::key(const QString &text, const QString &name)
{
    return checkDigits(text, name, cipher::blockLength);
}

QString valuecheck::longKey(const QString &text, const QString &name)
{
    return checkDigits(text, name, longKeyLength);
}

QString valuecheck::iv(const QString &text, const QString &name)
{
    QString error = key(text, name);
    if (error.isEmpty() && QByteArray::fromHex(text.toLatin1()).contains('\0'))
        return QStringLiteral("%1 must hold no byte 00: the box cuts it there and would not encipher").arg(name);
    return error;
}

QString valuecheck::peerName(const QString &text)
{
    const auto characters = text.toUcs4();
    const bool isShown = std::all_of(characters.cbegin(), characters.cend(), [](uint c) { return QChar::isPrint(c); });
    const bool isNone = text.isEmpty() || characters.size() > longestPeerName || text != text.trimmed() ||
                        text.startsWith(QLatin1Char('{')) || text.startsWith(QLatin1Char('-'));
    return isShown && !isNone ? QString()
                              : QStringLiteral("a peer's name must be 1 to %1 characters that can be shown, and begin "
                                               "with neither { nor -, like \"Anna's telephone\"")
                                    .arg(longestPeerName);
}

QString valuecheck::firstError(const QStringList &errors)
{
    const auto isError = [](const QString &text) { return !text.isEmpty(); };
    const auto first = std::find_if(errors.cbegin(), errors.cend(), isError);
    return first == errors.cend() ? QString() : *first;
}

bool valuecheck::isHostName(const QString &text)
{
    // Labels of letters, digits and inner hyphens. A number as the last one makes an address of it, in whatever
    // notation the system's resolver accepts.
    static const QRegularExpression labels(QStringLiteral("\\A(?:%1\\.)*(?!(?:[0-9]+|0x[0-9a-f]*)\\.?\\z)%1\\.?\\z")
                                               .arg(QStringLiteral("[a-z0-9](?:[a-z0-9-]{0,61}[a-z0-9])?")),
                                           QRegularExpression::CaseInsensitiveOption);
    return text.size() <= longestHostName && labels.match(text).hasMatch();
}
