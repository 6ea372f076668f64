// A call passes the server, which is not trusted: it may lose a call and choose the address that it says to have seen,
// but what the peer has sealed it can neither read nor make, nor have it count twice.

#include "agent/doorkeeper.h"

#include "agent/addresses.h"
#include "agent/peerrow.h"

using namespace introduction;
using namespace std::chrono_literals;

namespace
{
constexpr Allowance::Rule callRule{1s, 10}; // of one peer; of all together that have no row
constexpr std::size_t mostAddresses = 8;    // of a peer's own that are looked at
} // namespace

std::optional<Doorkeeper::Decision> Doorkeeper::take(std::string_view bytes, Moment now)
{
    const auto ring = read<Ring>(bytes);
    if (!ring || !isSigned(bytes, m_settings.token))
        return std::nullopt;
    const auto plain = unseal(ring->sealed, context(SealedFor::BoxByPeer, m_settings.box, ring->peer, ring->id),
                              callKey(m_settings.callKey, ring->peer));
    const auto items = plain ? Items::of(*plain) : std::nullopt;
    if (!items)
        return std::nullopt;

    const auto reply = [&](std::string sealed) {
        return encode(Reply{m_settings.box, ring->peer, ring->id, ring->ticket, std::move(sealed)}, m_settings.token);
    };
    const std::uint64_t nonce = items->number(Item::BoxNonce);
    if (!m_memory.isFresh(nonce))
        return Decision{reply(sealedReply(*ring, Verdict::StaleNonce, now)), std::nullopt};
    const CallMemory::Caller caller(ring->peer, ring->id);
    if (const std::string *before = m_memory.find(nonce, caller))
        return Decision{reply(*before), std::nullopt};

    const auto row = PeerRow::of(ring->peer);
    if (!row)
        return std::nullopt; // the peer asks again, and the store may answer then
    const bool isKnown = !row->uuid.isEmpty();
    if (!m_allowances[isKnown ? ring->peer : Uuid()].take(now, callRule))
        return Decision{reply(sealedReply(*ring, Verdict::Busy, now)), std::nullopt};
    const std::string sealed = sealedReply(*ring, isKnown ? Verdict::Welcome : Verdict::UnknownPeer, now);
    m_memory.remember(nonce, caller, sealed);
    if (!isKnown)
        return Decision{reply(sealed), std::nullopt};

    Guest guest;
    guest.uuid = row->uuid;
    if (!items->has(Item::NoDatagrams))
        guest.seen = ring->ticket.peer;
    guest.own = items->addresses(Item::OwnAddress);
    guest.own.resize(std::min(guest.own.size(), mostAddresses));
    const auto relayed = items->addresses(Item::RelayedAddress);
    if (!relayed.empty())
        guest.relayed = relayed.front();
    guest.wantsBurst = items->has(Item::BurstWanted);
    const std::string_view way = items->first(Item::OpenWay);
    if (way.size() == 1)
        guest.openWay = static_cast<OpenWay>(way.front());
    return Decision{reply(sealed), guest};
}

std::string Doorkeeper::sealedReply(const Ring &ring, Verdict verdict, Moment now)
{
    const char byte = static_cast<char>(verdict);
    Items items;
    items.add(Item::Verdict, std::string_view(&byte, 1)).add(Item::BoxNonce, m_memory.nonce(now));
    if (verdict == Verdict::Welcome) {
        for (const Address &address : ownAddresses(m_settings.udpPort))
            items.add(Item::OwnAddress, address);
    }
    return seal(items.bytes(), context(SealedFor::PeerByBox, m_settings.box, ring.peer, ring.id),
                callKey(m_settings.callKey, ring.peer));
}
