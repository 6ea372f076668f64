// The box's door, where the server and peers say anything. Each call of the input is 0 what is right about it | 1 which
// peer's and which call | 2 length | 3 bytes: the whole datagram, or the items that the peer has sealed.

#include "agent/doorkeeper.h"
#include "agent/addresses.h"
#include "agent/peerrow.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace introduction;

namespace
{
constexpr std::size_t header = 3;
constexpr Key token{1};
constexpr Key boxCallKey{2};

void check(bool isRight)
{
    if (!isRight)
        std::abort();
}

enum Right : unsigned { IsSigned = 1, IsSealed = 2, HasNonce = 4, IsLater = 8 };

/// A ring with these items, as server and peer make it.
std::string ring(const Uuid &box, const Uuid &peer, std::uint64_t id, const std::string &items)
{
    const std::string sealed = seal(items, context(SealedFor::BoxByPeer, box, peer, id), callKey(boxCallKey, peer));
    return encode(Ring{peer, id, Ticket(), sealed}, token);
}
} // namespace

/// Of each four peers one is connected, one is not, one has no row, and for one the store does not answer.
std::optional<PeerRow> PeerRow::of(const Uuid &peer)
{
    const unsigned kind = peer.front() % 4U;
    if (kind == 3)
        return std::nullopt;
    return PeerRow{kind == 2 ? QString() : QString::fromStdString(textOf(peer)), kind == 0};
}

/// Asking the system for them would take most of the time.
std::vector<Address> ownAddresses(quint16 port)
{
    Address address;
    address.port = port;
    return {address};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    BoxSettings settings;
    settings.box = {9};
    settings.token = token;
    settings.callKey = boxCallKey;
    Doorkeeper doorkeeper(settings);
    Moment now{0};
    while (size >= header) {
        const unsigned right = data[0];
        const Uuid peer{static_cast<std::uint8_t>(data[1] % 16U)};
        const std::uint64_t id = data[1] / 16U;
        const std::size_t length = std::min<std::size_t>(data[2] * std::size_t{4}, size - header);
        std::string bytes(reinterpret_cast<const char *>(data + header), length);
        now += Moment((right & IsLater) != 0 ? 700000 : 10);
        if ((right & IsSealed) != 0) {
            Items items;
            if ((right & HasNonce) != 0)
                items.add(Item::BoxNonce, doorkeeper.nonce(now));
            bytes.insert(0, items.bytes());
            bytes = ring(settings.box, peer, id, bytes);
        } else if ((right & IsSigned) != 0 && bytes.size() > macLength) {
            bytes.resize(bytes.size() - macLength);
            const Mac mac = macOf(bytes, token);
            bytes.append(reinterpret_cast<const char *>(mac.data()), mac.size());
        }
        const auto decision = doorkeeper.take(bytes, now);
        check(!decision || (right & IsSealed) != 0);
        if (decision) {
            const auto reply = read<Reply>(decision->reply);
            check(reply && reply->peer == peer && reply->id == id && isSigned(decision->reply, token));
            const auto again = doorkeeper.take(bytes, now);
            check(again && !again->guest);
        }
        if (decision && decision->guest) {
            check(peer.front() % 4U < 2 && (right & HasNonce) != 0 && decision->guest->own.size() <= 8);
            check(doorkeeper.take(bytes, now)->reply == decision->reply);
        }
        data += header + length;
        size -= header + length;
    }
    return 0;
}
