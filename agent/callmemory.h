#pragma once

#include "introduction/allowance.h"
#include "introduction/messages.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

/// The box's nonce, which a call must repeat, and what calls with it were answered: a call that was heard before does
/// nothing again, whoever repeats it. With a nonce that is no longer good, what came with it is forgotten. Needs no
/// clock that is right, and keeps nothing over a restart.
class CallMemory
{
public:
    CallMemory();

    /// Renews it where it is time, or where too much would have to be remembered.
    std::uint64_t nonce(Moment now);
    /// The present one, or the one before, as a peer may have asked just before the change.
    bool isFresh(std::uint64_t nonce) const;

    using Caller = std::pair<introduction::Uuid, std::uint64_t>; // peer and id of its call
    /// Null for a new call.
    const std::string *find(std::uint64_t nonce, const Caller &caller) const;
    void remember(std::uint64_t nonce, const Caller &caller, const std::string &reply);

private:
    struct Period {
        std::uint64_t nonce;
        std::map<Caller, std::string> replies;
    };

    Moment m_since{0};
    Period m_present;
    Period m_before;
};
