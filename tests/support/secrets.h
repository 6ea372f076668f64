#pragma once

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>
#include <QtEndian>

/// What introduces peers and boxes, computed without the library that the programs use.
template <typename Integer> QByteArray bytesOf(Integer number)
{
    number = qToBigEndian(number);
    return QByteArray(reinterpret_cast<const char *>(&number), sizeof number);
}
inline QByteArray hmac(const QByteArray &bytes, const QByteArray &key, QCryptographicHash::Algorithm how = QCryptographicHash::Sha256)
{
    return QMessageAuthenticationCode::hash(bytes, key, how);
}
inline QByteArray hkdf(const QByteArray &key, const QByteArray &info) // RFC 5869, one block
{
    return hmac(info + '\1', hmac(key, QByteArray(32, '\0')));
}
inline QByteArray sign(const QByteArray &bytes, const QByteArray &key) { return bytes + hmac(bytes, key).left(16); }
