#pragma once

#include <QString>
#include <QStringList>

/// What the values must look like that a box and its peers share. Each check gives empty text for a good value, and
/// else one line that calls the value `name` and says what would be right; the value itself never shows in it.
namespace valuecheck
{
/// 36 characters in braces, as they stand in every datagram.
QString uuid(const QString &text, const QString &name);

/// 32 hexadecimal digits.
QString key(const QString &text, const QString &name);

/// Like a key, and none of its bytes is zero.
QString iv(const QString &text, const QString &name);

/// 64 hexadecimal digits: the tokens and keys of the introduction.
QString longKey(const QString &text, const QString &name);

/// 1 to 60 characters that can be shown, and that no UUID or option begins with.
QString peerName(const QString &text);

/// The first text that is not empty; empty when there is none.
QString firstError(const QStringList &errors);

/// Whether this is a name to look up (RFC 1123, 2.1), and no address.
bool isHostName(const QString &text);
} // namespace valuecheck
