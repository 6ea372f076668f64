#pragma once

#include "introduction/allowance.h"
#include "introduction/messages.h"

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>

#include <cstdint>
#include <functional>
#include <utility>

/// Where a datagram comes from or goes to: one of the server's sockets, and the other side's address.
struct Place {
    introduction::Address address;
    std::uint8_t socket = 0;

    bool operator==(const Place &other) const { return address == other.address && socket == other.socket; }
    bool operator!=(const Place &other) const { return !(*this == other); }
};

/// A box that is registered. Mutable is what changes without moving it in the registry.
struct RegisteredBox {
    introduction::Uuid uuid = {};
    mutable introduction::Key token = {};
    mutable Place place;
    mutable bool isSigned = false;                             // and not just said so by a relay
    mutable std::chrono::duration<std::uint32_t> relaySeen{0}; // a relay's own registration from there; 0: none
    mutable std::uint32_t count = 0;
    mutable std::uint64_t nonce = 0;
    mutable Moment seen{0};
    mutable Allowance calls;
    mutable Allowance replies;
};

/// The boxes that registered not long ago: soft state, which comes back within one interval of the boxes' after a
/// restart.
class BoxRegistry
{
public:
    using Forgotten = std::function<void(const introduction::Uuid &)>;

    /// A box that was silent for longer is forgotten, and `forgotten` called with it if it is anything; of more boxes
    /// than these no new one is taken.
    BoxRegistry(Moment silenceLimit, std::size_t most, Forgotten forgotten = nullptr)
        : m_silenceLimit(silenceLimit), m_most(most), m_forgotten(std::move(forgotten))
    {
    }

    /// Null where the box is not registered.
    const RegisteredBox *find(const introduction::Uuid &box) const;
    /// Adds or changes a box, which is the one seen last then.
    void put(const RegisteredBox &box);
    /// Called for each registration of a box that is there.
    void see(const RegisteredBox *box, Moment now);
    /// Forgets a few of those that were silent for too long: call it often.
    void forgetSilent(Moment now);
    void forget(const RegisteredBox *box);
    std::size_t size() const { return m_boxes.size(); }

private:
    struct HashOfUuid {
        std::size_t operator()(const introduction::Uuid &uuid) const;
    };
    struct BySight {
    };
    using Boxes = boost::multi_index_container<
        RegisteredBox,
        boost::multi_index::indexed_by<
            boost::multi_index::hashed_unique<
                boost::multi_index::member<RegisteredBox, introduction::Uuid, &RegisteredBox::uuid>, HashOfUuid>,
            boost::multi_index::sequenced<boost::multi_index::tag<BySight>>>>;

    const Moment m_silenceLimit;
    const std::size_t m_most;
    const Forgotten m_forgotten;
    Boxes m_boxes;
};
