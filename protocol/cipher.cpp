// The cipher call. Every datagram starts from the same key and IV, so a lost or reordered one harms no other.

#include "protocol/cipher.h"

#include <cryptopp/aes.h>
#include <cryptopp/modes.h>

namespace
{
const CryptoPP::byte *bytes(const QByteArray &array)
{
    return reinterpret_cast<const CryptoPP::byte *>(array.constData());
}

template <typename Direction> QByteArray process(QByteArray message, const QByteArray &key, const QByteArray &iv)
{
    // Without a usable key and IV the box talks in plain; that is how it is run where no cipher is wanted.
    if (iv.size() != cipher::blockLength || key.size() != cipher::blockLength)
        return message;

    Direction direction;
    direction.SetKeyWithIV(bytes(key), cipher::blockLength, bytes(iv), cipher::blockLength);
    // From one buffer to another: in place, most blocks come out as zeros on 32-bit ARM.
    const QByteArray source = message;
    direction.ProcessData(reinterpret_cast<CryptoPP::byte *>(message.data()), bytes(source),
                          static_cast<size_t>(source.size()));
    return message;
}
} // namespace

QByteArray cipher::encipher(QByteArray message, const QByteArray &key, const QByteArray &iv)
{
    return process<CryptoPP::CFB_Mode<CryptoPP::AES>::Encryption>(std::move(message), key, iv);
}

QByteArray cipher::decipher(QByteArray message, const QByteArray &key, const QByteArray &iv)
{
    return process<CryptoPP::CFB_Mode<CryptoPP::AES>::Decryption>(std::move(message), key, iv);
}
