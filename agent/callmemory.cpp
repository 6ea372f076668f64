#include "agent/callmemory.h"

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::minutes nonceTime(10);
constexpr std::size_t mostReplies = 2000; // of 400 bytes at most
} // namespace

CallMemory::CallMemory()
    : m_present{introduction::freshNumber(), {}}, m_before{introduction::freshNumber(), {}} // nobody knows the latter
{
}

std::uint64_t CallMemory::nonce(Moment now)
{
    if (now - m_since > nonceTime || m_present.replies.size() >= mostReplies) {
        m_before = std::exchange(m_present, Period{introduction::freshNumber(), {}});
        m_since = now;
    }
    return m_present.nonce;
}

bool CallMemory::isFresh(std::uint64_t nonce) const
{
    return nonce == m_present.nonce || nonce == m_before.nonce;
}

const std::string *CallMemory::find(std::uint64_t nonce, const Caller &caller) const
{
    const auto &replies = (nonce == m_present.nonce ? m_present : m_before).replies;
    const auto found = replies.find(caller);
    return found == replies.end() ? nullptr : &found->second;
}

void CallMemory::remember(std::uint64_t nonce, const Caller &caller, const std::string &reply)
{
    (nonce == m_present.nonce ? m_present : m_before).replies.emplace(caller, reply);
}
