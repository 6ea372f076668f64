#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Who may say what in the introduction of a peer to its box. Every key is 32 bytes and made of another one by HKDF
/// (RFC 5869, SHA-256); README.md beside this file says who holds which, and what its loss costs.
namespace introduction
{
using Uuid = std::array<std::uint8_t, 16>;
using Key = std::array<std::uint8_t, 32>;
/// HMAC-SHA256 (RFC 2104), its first 16 bytes.
using Mac = std::array<std::uint8_t, 16>;

/// From the operating system.
Key freshKey();
std::uint64_t freshNumber();

/// 64 hexadecimal digits; nothing for any other text.
std::optional<Key> keyOf(std::string_view text);
std::string textOf(const Key &key);
/// 8-4-4-4-12 hexadecimal digits in braces; nothing for any other text.
std::optional<Uuid> uuidOf(std::string_view text);
std::string textOf(const Uuid &uuid);

/// The token of a box, from the secret of the rendezvous server.
Key boxToken(const Key &secret, const Uuid &box);
/// The token of a peer, from that of its box.
Key peerToken(const Key &boxToken, const Uuid &peer);
/// What a peer's calls and the answers to them are sealed with, from the call key of its box.
Key callKey(const Key &boxCallKey, const Uuid &peer);
/// What the server seals for a peer, from that peer's token.
Key answerKey(const Key &peerToken);
/// What the server signs for itself, from its secret.
Key cookieKey(const Key &secret);
/// What the server's nodes sign for each other, from the secret that all of them have.
Key nodeKey(const Key &secret);

Mac macOf(std::string_view bytes, const Key &key);
/// In constant time.
bool isSame(std::string_view left, std::string_view right);

/// Seals `plain` so that only who has the key can read it, and nobody else can have made it, nor `context`, which goes
/// in clear or is known: 24 bytes of nonce, the cipher text, 16 of tag (XChaCha20-Poly1305).
constexpr std::size_t sealLength = 40;
std::string seal(std::string_view plain, std::string_view context, const Key &key);
/// Nothing where the seal is broken.
std::optional<std::string> unseal(std::string_view sealed, std::string_view context, const Key &key);
} // namespace introduction
