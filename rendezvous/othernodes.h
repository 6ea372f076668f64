#pragma once

#include "introduction/secrets.h"

#include <cstdint>
#include <string>

/// The other nodes of a server that is several, as an Introducer sees them. Nothing here waits: what cannot be handed
/// on is lost, as on any network, and the peer asks again.
class OtherNodes
{
public:
    OtherNodes() = default;
    virtual ~OtherNodes() = default;
    OtherNodes(const OtherNodes &) = delete;
    OtherNodes &operator=(const OtherNodes &) = delete;

    /// What this node is called in tickets: its last byte is 0.
    virtual std::uint64_t number() const = 0;
    /// Whether this node wants what is for a box: it is registered here.
    virtual void want(const introduction::Uuid &box, bool isWanted) = 0;
    /// Hands on to each node that wants what is for this box. Where there is none, `unclaimed` comes back, if not
    /// empty.
    virtual void handToBox(const introduction::Uuid &box, std::string bytes, std::string unclaimed) = 0;
    virtual void handToNode(std::uint64_t number, std::string bytes) = 0;
};
