// Keys, signatures and seals of the introduction, put together from Crypto++.

#include "introduction/secrets.h"

#include <cryptopp/chachapoly.h>
#include <cryptopp/hkdf.h>
#include <cryptopp/hmac.h>
#include <cryptopp/misc.h>
#include <cryptopp/osrng.h>
#include <cryptopp/sha.h>

#include <algorithm>

namespace introduction
{
namespace
{
constexpr std::size_t nonceLength = 24;
constexpr std::size_t tagLength = 16;
static_assert(sealLength == nonceLength + tagLength);
constexpr std::string_view hexadecimal = "0123456789abcdef";

const CryptoPP::byte *bytesOf(std::string_view text)
{
    return reinterpret_cast<const CryptoPP::byte *>(text.data());
}

CryptoPP::byte *bytesOf(std::string &text)
{
    return reinterpret_cast<CryptoPP::byte *>(text.data());
}

std::string_view viewOf(const Uuid &uuid)
{
    return {reinterpret_cast<const char *>(uuid.data()), uuid.size()};
}

/// `purpose` keeps keys apart that are made of the same one.
Key derive(const Key &from, std::string_view purpose, const Uuid *whom = nullptr)
{
    const std::string info = std::string(purpose) + std::string(whom != nullptr ? viewOf(*whom) : std::string_view());
    Key key = {};
    CryptoPP::HKDF<CryptoPP::SHA256>().DeriveKey(key.data(), key.size(), from.data(), from.size(), nullptr, 0,
                                                 bytesOf(info), info.size());
    return key;
}

void random(CryptoPP::byte *bytes, std::size_t count)
{
    static thread_local CryptoPP::AutoSeededRandomPool pool;
    pool.GenerateBlock(bytes, count);
}

template <typename Bytes> std::string hexOf(const Bytes &bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += hexadecimal.at(byte / 16U);
        text += hexadecimal.at(byte % 16U);
    }
    return text;
}

/// Exactly two digits a byte.
template <typename Bytes> std::optional<Bytes> bytesOfHex(std::string_view text)
{
    Bytes bytes = {};
    if (text.size() != 2 * bytes.size())
        return std::nullopt;
    for (std::size_t index = 0; index < text.size(); index++) {
        const char small =
            text[index] >= 'A' && text[index] <= 'F' ? static_cast<char>(text[index] - 'A' + 'a') : text[index];
        const auto digit = hexadecimal.find(small);
        if (digit == std::string_view::npos)
            return std::nullopt;
        bytes[index / 2] = static_cast<std::uint8_t>(bytes[index / 2] * 16U + digit);
    }
    return bytes;
}
} // namespace

Key freshKey()
{
    Key key = {};
    random(key.data(), key.size());
    return key;
}

std::uint64_t freshNumber()
{
    std::array<CryptoPP::byte, sizeof(std::uint64_t)> bytes = {};
    random(bytes.data(), bytes.size());
    std::uint64_t number = 0;
    for (const CryptoPP::byte byte : bytes)
        number = number << 8U | byte;
    return number;
}

std::optional<Key> keyOf(std::string_view text)
{
    return bytesOfHex<Key>(text);
}

std::string textOf(const Key &key)
{
    return hexOf(key);
}

std::optional<Uuid> uuidOf(std::string_view text)
{
    constexpr std::string_view form = "{00000000-0000-0000-0000-000000000000}";
    if (text.size() != form.size())
        return std::nullopt;
    std::string digits;
    for (std::size_t index = 0; index < form.size(); index++) {
        if (form[index] == '0')
            digits += text[index];
        else if (text[index] != form[index])
            return std::nullopt;
    }
    return bytesOfHex<Uuid>(digits);
}

std::string textOf(const Uuid &uuid)
{
    std::string text = hexOf(uuid);
    for (const std::size_t hyphen : {8U, 13U, 18U, 23U})
        text.insert(hyphen, 1, '-');
    return '{' + text + '}';
}

Key boxToken(const Key &secret, const Uuid &box)
{
    return derive(secret, "box", &box);
}

Key peerToken(const Key &boxToken, const Uuid &peer)
{
    return derive(boxToken, "peer", &peer);
}

Key callKey(const Key &boxCallKey, const Uuid &peer)
{
    return derive(boxCallKey, "call", &peer);
}

Key answerKey(const Key &peerToken)
{
    return derive(peerToken, "answer");
}

Key cookieKey(const Key &secret)
{
    return derive(secret, "cookie");
}

Key nodeKey(const Key &secret)
{
    return derive(secret, "node");
}

Mac macOf(std::string_view bytes, const Key &key)
{
    CryptoPP::HMAC<CryptoPP::SHA256> hmac(key.data(), key.size());
    Mac mac = {};
    hmac.CalculateTruncatedDigest(mac.data(), mac.size(), bytesOf(bytes), bytes.size());
    return mac;
}

bool isSame(std::string_view left, std::string_view right)
{
    return left.size() == right.size() && CryptoPP::VerifyBufsEqual(bytesOf(left), bytesOf(right), left.size());
}

std::string seal(std::string_view plain, std::string_view context, const Key &key)
{
    std::string sealed(sealLength + plain.size(), '\0');
    CryptoPP::byte *nonce = bytesOf(sealed);
    CryptoPP::byte *text = nonce + nonceLength;
    random(nonce, nonceLength);
    CryptoPP::XChaCha20Poly1305::Encryption cipher;
    cipher.SetKeyWithIV(key.data(), key.size(), nonce, nonceLength);
    cipher.EncryptAndAuthenticate(text, text + plain.size(), tagLength, nonce, static_cast<int>(nonceLength),
                                  bytesOf(context), context.size(), bytesOf(plain), plain.size());
    return sealed;
}

std::optional<std::string> unseal(std::string_view sealed, std::string_view context, const Key &key)
{
    if (sealed.size() < sealLength)
        return std::nullopt;
    std::string plain(sealed.size() - sealLength, '\0');
    const CryptoPP::byte *nonce = bytesOf(sealed);
    const CryptoPP::byte *text = nonce + nonceLength;
    CryptoPP::XChaCha20Poly1305::Decryption cipher;
    cipher.SetKeyWithIV(key.data(), key.size(), nonce, nonceLength);
    if (!cipher.DecryptAndVerify(bytesOf(plain), text + plain.size(), tagLength, nonce, static_cast<int>(nonceLength),
                                 bytesOf(context), context.size(), text, plain.size()))
        return std::nullopt;
    return plain;
}
} // namespace introduction
