#pragma once

#include "introduction/secrets.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The datagrams by which a peer and its box find each other through the rendezvous server. README.md beside this file
/// shows the conversation. Integers are unsigned and big-endian. What is read is checked for its form alone: whether it
/// is signed, fresh and wanted is up to the reader.
namespace introduction
{
/// The first byte of each, and none of the relay's: box and relay share a port.
enum class MessageKind : std::uint8_t {
    Registration = 0xa1, // box to server
    Registered = 0xa2,
    Challenge = 0xa3, // server to box or peer
    Refusal = 0xa4,
    Call = 0xa5,         // peer to server
    Ring = 0xa6,         // server to box
    Reply = 0xa7,        // box to server
    Answer = 0xa8,       // server to peer
    HandedCall = 0xa9,   // node of the server to node
    HandedAnswer = 0xaa, // node to node
    Moved = 0xab,        // node to nodes
};

/// What the server or a box says no with.
enum class Reason : std::uint8_t {
    BadToken = 1, // the signature is not made with the token that belongs to the UUID
    UnknownBox,   // no box of that UUID is registered
    Busy,         // over a limit: later
};

/// IPv4 addresses are IPv4-mapped (RFC 4291, 2.5.5.2).
struct Address {
    std::array<std::uint8_t, 16> ip = {};
    std::uint16_t port = 0;

    bool operator==(const Address &other) const { return ip == other.ip && port == other.port; }
    bool operator!=(const Address &other) const { return !(*this == other); }
};

/// 0 kind | 1 box | 17 nonce | 25 count | 29 cookie | 37 MAC under the box's token (53 bytes)
struct Registration {
    Uuid box = {};
    std::uint64_t nonce = 0; // the box's, which calls must repeat
    std::uint32_t count = 0; // rises with each one of the same nonce
    std::uint64_t cookie = 0;
};

/// 0 kind | 1 count | 5 where the registration came from | 23 seconds since the relay itself registered there (25
/// bytes)
struct Registered {
    static constexpr std::uint16_t notKnown = 0xffff; // and longer than that

    std::uint32_t count = 0;
    Address seen;
    std::uint16_t relayAge = notKnown;
};

/// 0 kind | 1 echo: nonce of a registration, id of a call | 9 cookie | 17 nonce of the box, 0: not known (25 bytes)
struct Challenge {
    std::uint64_t echo = 0;
    std::uint64_t cookie = 0;
    std::uint64_t boxNonce = 0;
};

/// 0 kind | 1 echo as above | 9 reason (10 bytes)
struct Refusal {
    std::uint64_t echo = 0;
    Reason reason = Reason::Busy;
};

/// 0 kind | 1 box | 17 peer | 33 id | 41 cookie | 49 sealed for the box | MAC under the peer's token
struct Call {
    Uuid box = {};
    Uuid peer = {};
    std::uint64_t id = 0;
    std::uint64_t cookie = 0;
    std::string sealed;
};

/// What the server gives a box along with a call and wants back with the reply, so that it need remember no calls:
/// 0 node that the call came to, its last byte the socket there | 8 address of the peer | 26 signature of the server's
/// (34 bytes)
struct Ticket {
    std::uint64_t node = 0;
    Address peer;
    std::uint64_t signature = 0;
};

/// 0 kind | 1 peer | 17 id | 25 ticket | 59 sealed for the box | MAC under the box's token
struct Ring {
    Uuid peer = {};
    std::uint64_t id = 0;
    Ticket ticket;
    std::string sealed;
};

/// 0 kind | 1 box | 17 peer | 33 id | 41 ticket | 75 sealed for the peer by the box | MAC under the box's token
struct Reply {
    Uuid box = {};
    Uuid peer = {};
    std::uint64_t id = 0;
    Ticket ticket;
    std::string sealed;
};

/// 0 kind | 1 id | 9 length of the next (16 bits) | 11 sealed for the peer by the server | sealed for it by the box
struct Answer {
    std::uint64_t id = 0;
    std::string byServer;
    std::string byBox;
};

/// A call for a box that is registered at another node of the server; which rings it for the peer:
/// 0 kind | 1 box | 17 peer | 33 id | 41 ticket | 75 sealed for the box | MAC under the nodes' key
struct HandedCall {
    Uuid box = {};
    Uuid peer = {};
    std::uint64_t id = 0;
    Ticket ticket;
    std::string sealed;
};

/// What the node that the call came to is to send its peer, as no other address is let in there:
/// 0 kind | 1 box | 17 id | 25 ticket | 59 an answer or a refusal | MAC under the nodes' key
struct HandedAnswer {
    Uuid box = {};
    std::uint64_t id = 0;
    Ticket ticket;
    std::string datagram;
};

/// The box has just registered here, with these, and is nowhere else any more:
/// 0 kind | 1 box | 17 nonce | 25 count | 29 MAC under the nodes' key (45 bytes)
struct Moved {
    Uuid box = {};
    std::uint64_t nonce = 0;
    std::uint32_t count = 0;
};

/// Longer ones are no messages: a datagram of this length passes every network in one piece.
constexpr std::size_t longestMessage = 1200;
/// What nodes hand each other may have grown a little, by ticket, credential and MAC.
constexpr std::size_t longestHanded = 1600;
constexpr std::size_t macLength = std::tuple_size<Mac>::value;

/// The bytes of a message that is not signed, and of one that is: with a box's token, or a peer's where the peer sends
/// it.
template <typename Message> std::string encode(const Message &message);
template <typename Message> std::string encode(const Message &message, const Key &token);

/// The message that the bytes are, nothing where they are another one, too short or too long.
template <typename Message> std::optional<Message> read(std::string_view bytes);

/// Whether the MAC at the end of a message is made with this token.
bool isSigned(std::string_view bytes, const Key &token);

/// What a seal is bound to, so that nothing sealed in one place can be shown in another.
enum class SealedFor : std::uint8_t { BoxByPeer = 1, PeerByBox, PeerByServer };
std::string context(SealedFor whom, const Uuid &box, const Uuid &peer, std::uint64_t id);

/// What is sealed: items of 0 type | 1 length | 2 value, in any order. Those of a type that is not known are skipped,
/// so that later programs may say more.
enum class Item : std::uint8_t {
    BoxNonce = 1,   // 8 bytes
    OwnAddress,     // 18 bytes: ip, port; of a program on its own networks
    RelayedAddress, // 18 bytes: of the peer at the server that carries datagrams
    BurstWanted,    // 0 bytes: the peer knocks from many ports, or at many
    SeenAddress,    // 18 bytes: where the server sees the box
    TurnServer,     // text: host and port
    TurnUser,       // text
    TurnPassword,   // text
    Verdict,        // 1 byte, a Verdict
    TurnTlsPort,    // 8 bytes: of that server's TLS
    NoDatagrams,    // 0 bytes: where the server sees the peer, it takes none
    CallerAddress,  // 18 bytes: where the server sees the peer
    OpenWay,        // 1 byte, an OpenWay: the peer calls for nothing else than to tell it
};
/// How a peer reaches its box, which only the peer can know.
enum class OpenWay : std::uint8_t {
    Nowhere = 0,     // is not told
    SameNetwork = 1, // at an address of the box's own network
    Ipv6,
    Direct,  // by single knocks
    Punched, // from many sockets, at many ports or with the relay's bursts
    Carried, // by the TURN server
};
/// In one word, such as "same-network"; "other" where a later program may know more.
const char *nameOf(OpenWay way);

/// What a box makes of a call.
enum class Verdict : std::uint8_t {
    Welcome = 1,
    StaleNonce, // once more, with the nonce that comes with this
    UnknownPeer,
    Busy,
};

class Items
{
public:
    Items &add(Item type, std::string_view value);
    Items &add(Item type, std::uint64_t value);
    Items &add(Item type, const Address &value);
    const std::string &bytes() const { return m_bytes; }

    /// Nothing for bytes that end within an item.
    static std::optional<Items> of(std::string_view bytes);
    bool has(Item type) const { return !all(type).empty(); }
    /// Empty where there is none.
    std::string_view first(Item type) const;
    /// 0 where there is none of 8 bytes.
    std::uint64_t number(Item type) const;
    /// Those of 18 bytes.
    std::vector<Address> addresses(Item type) const;

private:
    std::vector<std::string_view> all(Item type) const;

    std::string m_bytes;
};
} // namespace introduction
