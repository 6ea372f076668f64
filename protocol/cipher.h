#pragma once

#include <QByteArray>

/// AES-128 in CFB mode with full-block feedback (CFB128, NIST SP 800-38A), afresh from the IV for every datagram.
namespace cipher
{
constexpr int blockLength = 16; // bytes of the key and of the IV

/// Returns `message` enciphered, of the same length; unchanged when key or IV is not exactly 16 bytes long.
QByteArray encipher(QByteArray message, const QByteArray &key, const QByteArray &iv);

/// Undoes encipher(), with the same fallback. Nothing is authenticated: a wrong key yields garbage.
QByteArray decipher(QByteArray message, const QByteArray &key, const QByteArray &iv);
} // namespace cipher
