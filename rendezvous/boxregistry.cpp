#include "rendezvous/boxregistry.h"

#include <cstring>

using namespace std::chrono_literals;

namespace
{
constexpr Moment silenceLimit = 70s; // three registrations, 20 s apart, and some way
constexpr int mostForgotten = 16;    // at a time
} // namespace

/// Whoever has a token chose no UUID, so that a part of it is spread well enough.
std::size_t BoxRegistry::HashOfUuid::operator()(const introduction::Uuid &uuid) const
{
    std::size_t hash = 0;
    std::memcpy(&hash, uuid.data() + uuid.size() - sizeof hash, sizeof hash);
    return hash;
}

const RegisteredBox *BoxRegistry::find(const introduction::Uuid &box) const
{
    const auto found = m_boxes.find(box);
    return found == m_boxes.end() ? nullptr : &*found;
}

const RegisteredBox *BoxRegistry::put(const RegisteredBox &box)
{
    const auto [place, isNew] = m_boxes.insert(box);
    if (!isNew) {
        RegisteredBox changed = box;
        changed.calls = place->calls; // or they would begin anew with each address
        changed.replies = place->replies;
        m_boxes.replace(place, changed);
    }
    see(&*place, box.seen);
    return &*place;
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
    for (int count = 0; count < mostForgotten && !bySight.empty() && now - bySight.front().seen > silenceLimit; count++)
        bySight.pop_front();
}
