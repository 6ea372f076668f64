// Where the server is several nodes, a box is registered at one of them and a peer calls at any. A call goes on when
// all is checked that can be checked without the box; the answer comes back to the node that was asked, as the peer's
// router lets nobody else in. What nodes say to each other they sign, so that whatever else passes on their way changes
// nothing.

#include "rendezvous/introducer.h"

#include <utility>

using namespace introduction;

namespace
{
constexpr std::uint64_t socketBits = 0xff; // of the number of a node in a ticket
} // namespace

std::optional<Datagram> Introducer::takeHanded(std::string_view bytes, Moment now, std::chrono::seconds wallClock)
{
    if (isSigned(bytes, m_nodeKey)) {
        if (const auto call = read<HandedCall>(bytes))
            return takeHandedCall(*call, now, wallClock);
        if (auto answer = read<HandedAnswer>(bytes))
            return takeHandedAnswer(std::move(*answer), wallClock);
        if (const auto moved = read<Moved>(bytes))
            return takeMoved(*moved);
    }
    return drop();
}

/// A box is where it has registered last.
void Introducer::tellMoved(const RegisteredBox &box)
{
    if (m_options.others == nullptr)
        return;
    m_options.others->want(box.uuid, true);
    m_options.others->handToBox(box.uuid, encode(Moved{box.uuid, box.nonce, box.count}, m_nodeKey), std::string());
}

/// Where the box is nowhere else either, the peer is refused if it is not here.
void Introducer::handOn(const Uuid &box, const Ring &call, bool isElsewhere)
{
    if (m_options.others == nullptr)
        return;
    Counts::add(&m_counts.handedOn);
    const std::string refusal = encode(Refusal{call.id, Reason::UnknownBox});
    m_options.others->handToBox(box, encode(HandedCall{box, call.peer, call.id, call.ticket, call.sealed}, m_nodeKey),
                                isElsewhere ? encode(HandedAnswer{box, call.id, call.ticket, refusal}, m_nodeKey)
                                            : std::string());
}

Introducer::Response Introducer::takeHandedCall(const HandedCall &call, Moment now, std::chrono::seconds wallClock)
{
    const RegisteredBox *box = m_boxes.find(call.box);
    return box == nullptr ? drop() : ring(*box, {call.peer, call.id, call.ticket, call.sealed}, now, wallClock);
}

Introducer::Response Introducer::takeHandedAnswer(HandedAnswer answer, std::chrono::seconds wallClock)
{
    const auto refusal = read<Refusal>(answer.datagram);
    if (!isOurs(answer.ticket) || !isValid(answer.ticket, answer.box, answer.id, wallClock))
        return drop();
    if (refusal && refusal->reason == Reason::UnknownBox)
        Counts::add(&m_counts.unknownBoxes);
    return deliver(std::move(answer));
}

Introducer::Response Introducer::takeMoved(const Moved &moved)
{
    const RegisteredBox *box = m_boxes.find(moved.box);
    if (box != nullptr && (box->nonce != moved.nonce || box->count < moved.count))
        m_boxes.forget(box);
    return std::nullopt;
}

/// To the peer, through the node that it has asked.
Introducer::Response Introducer::deliver(HandedAnswer answer)
{
    if (isOurs(answer.ticket))
        return Datagram{{answer.ticket.peer, static_cast<std::uint8_t>(answer.ticket.node)},
                        std::move(answer.datagram)};
    if (m_options.others != nullptr)
        m_options.others->handToNode(answer.ticket.node & ~socketBits, encode(answer, m_nodeKey));
    return std::nullopt;
}

bool Introducer::isOurs(const Ticket &ticket) const
{
    return (ticket.node & ~socketBits) == (m_options.others == nullptr ? 0 : m_options.others->number());
}
