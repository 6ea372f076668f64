#pragma once

#include "introduction/messages.h"
#include "rendezvous/boxregistry.h"
#include "rendezvous/othernodes.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// What the server counts. Written by one thread, read by any.
struct Counts {
    std::atomic<std::uint64_t> registrations{0};      // signed, and taken
    std::atomic<std::uint64_t> plainRegistrations{0}; // of relays
    std::atomic<std::uint64_t> challenges{0};
    std::atomic<std::uint64_t> calls{0};        // that went on to their box
    std::atomic<std::uint64_t> answers{0};      // that went on to their peer
    std::atomic<std::uint64_t> handedOn{0};     // calls for boxes that may be registered at other nodes
    std::atomic<std::uint64_t> unknownBoxes{0}; // calls for boxes that are not registered
    std::atomic<std::uint64_t> badTokens{0};
    std::atomic<std::uint64_t> overLimit{0};
    std::atomic<std::uint64_t> dropped{0}; // no message, out of order, or not from where it should come
    std::atomic<std::uint64_t> boxes{0};   // registered now

    /// One more; cheaper than the atomic's own, as there is one writer.
    static void add(std::atomic<std::uint64_t> *count)
    {
        count->store(count->load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
};

/// The server that carries datagrams where no direct path opens (TURN, RFC 8656), and its secret for the time-limited
/// credentials that its REST interface knows.
struct TurnService {
    std::string server; // host and port, by UDP and TCP; empty: there is none
    std::string secret;
    std::uint16_t tlsPort = 0; // 0: no TLS there
};

struct Datagram {
    Place place;
    std::string bytes;
};

/// Introduces peers to boxes: what the rendezvous server makes of each datagram. Knows no sockets and no clocks, keeps
/// nothing but the registered boxes, and never answers an unproven source with more than it sent.
class Introducer
{
public:
    struct Options {
        introduction::Key secret = {};
        TurnService turn;
        bool trustsPlain = false;     // registrations of relays count where no agent's does
        OtherNodes *others = nullptr; // null: there are none
    };

    explicit Introducer(const Options &options);

    /// What is to be sent for a datagram, if anything. `now` never goes back; `wallClock` is what UNIX counts, and may.
    std::optional<Datagram> take(const Place &from, std::string_view bytes, Moment now, std::chrono::seconds wallClock);

    /// The same for what another node handed on, or what came back unclaimed.
    std::optional<Datagram> takeHanded(std::string_view bytes, Moment now, std::chrono::seconds wallClock);

    /// Call it now and then while nothing comes.
    void forgetSilent(Moment now);

    const Counts &counts() const { return m_counts; }

private:
    using Response = std::optional<Datagram>;
    struct Incoming {
        const Place &from;
        std::string_view bytes;
        Moment now;
        std::chrono::seconds wallClock;
    };

    Response takeRegistration(const Incoming &incoming);
    Response takePlain(const Incoming &incoming);
    Response takeCall(const Incoming &incoming);
    Response takeReply(const Incoming &incoming);
    Response ring(const RegisteredBox &box, const introduction::Ring &call, Moment now, std::chrono::seconds wallClock);
    Response challenge(const Incoming &incoming, std::uint64_t echo, std::uint64_t boxNonce);
    Response refuse(const Incoming &incoming, std::uint64_t echo, introduction::Reason reason);
    Response drop();

    // What passes between nodes.
    void tellMoved(const RegisteredBox &box);
    void handOn(const introduction::Uuid &box, const introduction::Ring &call, bool isElsewhere);
    Response takeHandedCall(const introduction::HandedCall &call, Moment now, std::chrono::seconds wallClock);
    Response takeHandedAnswer(introduction::HandedAnswer answer, std::chrono::seconds wallClock);
    Response takeMoved(const introduction::Moved &moved);
    Response deliver(introduction::HandedAnswer answer);
    bool isOurs(const introduction::Ticket &ticket) const;

    std::string seal(const RegisteredBox &box, const introduction::Uuid &peer, std::uint64_t id,
                     const introduction::Address &caller, std::chrono::seconds wallClock) const;
    bool isWithinLimit(const Incoming &incoming);
    bool isProven(const Incoming &incoming, std::uint64_t proof) const;
    introduction::Ticket ticket(const Incoming &incoming, const introduction::Uuid &box, std::uint64_t id) const;
    bool isValid(const introduction::Ticket &ticket, const introduction::Uuid &box, std::uint64_t id,
                 std::chrono::seconds wallClock) const;
    std::uint64_t cookie(const Place &of, std::int64_t period) const;
    std::uint64_t signature(const introduction::Ticket &ticket, const introduction::Uuid &box, std::uint64_t id,
                            std::int64_t period) const;

    using Allowances = std::array<Allowance, 65536>;
    Allowance *allowance(Allowances *of, std::string_view name) const;

    const Options m_options;
    const introduction::Key m_cookieKey;
    const introduction::Key m_nodeKey;
    const introduction::Key m_hashKey; // so that nobody can tell whom he shares an allowance with
    BoxRegistry m_boxes;
    BoxRegistry m_plainBoxes;
    std::unique_ptr<Allowances> m_sources;
    std::unique_ptr<Allowances> m_callers;
    Counts m_counts;
};
