#include "client/relay/repeats.h"

#include <QCryptographicHash>

#include <iterator>

using namespace std::chrono_literals;

namespace
{
// Longer than the relay sends one packet, and much shorter than it tells a packet from its like: one that comes later
// is another one, and will come endlessly.
constexpr std::chrono::milliseconds memory = 30s;
constexpr int mostSeen = 10000; // more than the relay sends in that time
} // namespace

bool Repeats::take(const QByteArray &packet)
{
    const QByteArray key = QCryptographicHash::hash(packet, QCryptographicHash::Sha1);
    const auto seen = m_seen.constFind(key);
    const qint64 now = m_clock.elapsed();
    const auto isOld = [now](qint64 time) { return now - time >= memory.count(); };
    const bool isKnown = seen != m_seen.constEnd() && !isOld(*seen);
    m_seen.insert(key, now);
    if (m_seen.size() > mostSeen) { // a response without end
        for (auto entry = m_seen.begin(); entry != m_seen.end();)
            entry = isOld(*entry) ? m_seen.erase(entry) : std::next(entry);
    }
    m_copies = isKnown ? m_copies + 1 : 0;
    if (m_copies == 1)
        m_sinceFirst.start();
    return isKnown;
}

bool Repeats::areEndless(int copies, std::chrono::milliseconds least) const
{
    return m_copies >= copies && m_sinceFirst.hasExpired(least.count());
}

void Repeats::forget()
{
    m_seen.clear();
    m_copies = 0;
}
