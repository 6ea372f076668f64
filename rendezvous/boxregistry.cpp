#include "rendezvous/boxregistry.h"

#include <array>
#include <cstring>

namespace
{
constexpr int mostForgotten = 16; // at a time
} // namespace

/// With numbers that nobody knows: a plain registration has any UUID that its sender likes.
std::size_t BoxRegistry::HashOfUuid::operator()(const introduction::Uuid &uuid) const
{
    static const std::array<std::uint64_t, 2> factors{introduction::freshNumber() | 1U,
                                                      introduction::freshNumber() | 1U};
    constexpr unsigned half = 32;
    std::array<std::uint64_t, 2> halves = {};
    std::memcpy(halves.data(), uuid.data(), uuid.size());
    const std::uint64_t mixed =
        halves[0] * factors[0] ^ (halves[1] * factors[1] >> half | halves[1] * factors[1] << half);
    return static_cast<std::size_t>(mixed ^ mixed >> half);
}

const RegisteredBox *BoxRegistry::find(const introduction::Uuid &box) const
{
    const auto found = m_boxes.find(box);
    return found == m_boxes.end() ? nullptr : &*found;
}

void BoxRegistry::put(const RegisteredBox &box)
{
    const auto known = m_boxes.find(box.uuid);
    if (known == m_boxes.end()) {
        if (m_boxes.size() < m_most)
            see(&*m_boxes.insert(box).first, box.seen);
        return;
    }
    RegisteredBox changed = box;
    changed.calls = known->calls; // or they would begin anew with each address
    changed.replies = known->replies;
    changed.relaySeen = known->relaySeen;
    m_boxes.replace(known, changed);
    see(&*known, box.seen);
}

void BoxRegistry::see(const RegisteredBox *box, Moment now)
{
    box->seen = now;
    auto &bySight = m_boxes.get<BySight>();
    bySight.relocate(bySight.end(), bySight.iterator_to(*box));
}

void BoxRegistry::forgetSilent(Moment now)
{
    auto &bySight = m_boxes.get<BySight>();
    for (int count = 0; count < mostForgotten && !bySight.empty() && now - bySight.front().seen > m_silenceLimit;
         count++)
        forget(&bySight.front());
}

void BoxRegistry::forget(const RegisteredBox *box)
{
    const introduction::Uuid uuid = box->uuid;
    m_boxes.erase(uuid);
    if (m_forgotten)
        m_forgotten(uuid);
}
