#pragma once

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>
#include <QtEndian>

#include <openssl/evp.h>

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

/// One pass of a stream cipher of OpenSSL; with a context it is an AEAD that appends its tag, or takes it off and checks it.
/// A null array where the tag is wrong.
inline QByteArray chacha(QByteArray text, const QByteArray &key, const QByteArray &iv, const QByteArray *context = nullptr,
                         bool seals = true)
{
    const auto bytes = [](const QByteArray &data) { return reinterpret_cast<const uchar *>(data.constData()); };
    EVP_CIPHER_CTX *cipher = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(cipher, context != nullptr ? EVP_chacha20_poly1305() : EVP_chacha20(), nullptr, bytes(key), bytes(iv), seals ? 1 : 0);
    QByteArray tag = seals ? QByteArray(16, '\0') : text.right(16);
    if (!seals) {
        text.chop(16);
        EVP_CIPHER_CTX_ctrl(cipher, EVP_CTRL_AEAD_SET_TAG, 16, tag.data());
    }
    int length = 0;
    if (context != nullptr)
        EVP_CipherUpdate(cipher, nullptr, &length, bytes(*context), context->size());
    EVP_CipherUpdate(cipher, reinterpret_cast<uchar *>(text.data()), &length, bytes(text), text.size());
    const bool isGood = EVP_CipherFinal_ex(cipher, reinterpret_cast<uchar *>(text.data()) + length, &length) == 1;
    if (context != nullptr && seals) {
        EVP_CIPHER_CTX_ctrl(cipher, EVP_CTRL_AEAD_GET_TAG, 16, tag.data());
        text += tag;
    }
    EVP_CIPHER_CTX_free(cipher);
    return isGood ? text : QByteArray();
}
/// XChaCha20-Poly1305 out of OpenSSL's ChaCha20: its first block is HChaCha20's result with the start added to each word.
inline QByteArray xchacha(const QByteArray &text, const QByteArray &key, const QByteArray &nonce, const QByteArray &context, bool seals)
{
    const QByteArray start = "expand 32-byte k" + nonce.left(16);
    const QByteArray block = chacha(QByteArray(64, '\0'), key, nonce.left(16));
    const QByteArray ends = block.left(16) + block.right(16);
    QByteArray subkey(32, '\0');
    for (int word = 0; word < 32; word += 4)
        qToLittleEndian(qFromLittleEndian<quint32>(ends.constData() + word) - qFromLittleEndian<quint32>(start.constData() + word),
                        subkey.data() + word);
    return chacha(text, subkey, QByteArray(4, '\0') + nonce.right(8), &context, seals);
}
