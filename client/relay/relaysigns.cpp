#include "client/relay/relaysigns.h"

#include "client/path/boxpath.h"

#include <algorithm>
#include <cmath>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds relaySpacing = 500ms; // between copies of a packet, until it is confirmed
constexpr std::chrono::milliseconds noise = 100ms;
constexpr int mostCopies = 5; // where a third of all confirmations are lost, each sent three times, one in a million
constexpr int mostCopiesInVain = 3;                   // of what nobody waits for, on a good line
constexpr int probeShare = 3;                         // patience is longer where a HEAD takes more than this part of it
constexpr int lastShare = 2;                          // or the last one more than this part
constexpr int probesShare = 2 * probeShare;           // the same for two of them
constexpr std::chrono::milliseconds wholeGap = 200ms; // behind a whole answer; in it a link that owes another gives it
constexpr std::chrono::milliseconds othersMemory = 60s;
constexpr std::chrono::milliseconds lossMemory = 60s;
constexpr int lossyPatience = 3; // times as long: a packet is five fragments, of which none may be lost
} // namespace

RelaySigns::RelaySigns(const BoxPath *path, const Proof *proof) : m_path(path), m_proof(proof)
{
    m_sinceSign.start(); // a peer of the same name may have been at work until now
}

void RelaySigns::take(const QByteArray &packet, const datagram::ResponseHeader &header, const QByteArray &slice,
                      bool isPresent, bool isReceiving)
{
    m_isAnswered = header.index + 1 == header.count;
    m_gap = m_sinceSign.restart();
    m_isRepeated = m_repeats.take(packet);
    watchRelay(header, slice, isReceiving);
    m_pace.take(header, slice, m_gap, m_isRelayWaiting, isPresent);
}

/// What the relay makes of each of its reads, whomever it is for: it looks for the beginning of chunks anywhere in it,
/// and for their end in its last seven bytes, whatever the response really is.
void RelaySigns::watchRelay(const datagram::ResponseHeader &header, const QByteArray &slice, bool isReceiving)
{
    constexpr int endReach = 7;
    const QByteArray seen = (header.index == 0 ? QByteArray() : m_tail) + slice;
    const bool isBeginning = seen.contains(ChunkPace::chunkedField);
    m_isInChunks = isBeginning || (m_isInChunks && isReceiving);
    m_isRelayWaiting |= isBeginning;
    if (m_isAnswered && seen.right(endReach).contains("0\r\n\r\n"))
        m_isRelayWaiting = false;
    m_tail = seen.right(static_cast<int>(sizeof ChunkPace::chunkedField) - 2);
}

bool RelaySigns::isBacklog() const
{
    return m_pace.isBacklog(roundTrip());
}

bool RelaySigns::isAnsweredBehind() const
{
    return std::min(m_pace.age(), m_proof->age()) > std::max<qint64>(wholeGap.count(), probesShare * m_proof->time());
}

bool RelaySigns::areRepeatsEndless(bool isWanted) const
{
    const int copies = isWanted || isLossy() ? mostCopies : mostCopiesInVain;
    const std::chrono::milliseconds roundTrips(std::llround(2 * roundTrip()));
    const std::chrono::milliseconds proofs(isWanted ? 0 : probesShare * m_proof->time());
    return m_repeats.areEndless(copies, std::max((copies - 1) * relaySpacing - noise + roundTrips, proofs));
}

void RelaySigns::startSilence()
{
    m_isAnswered = false;
    m_sinceSign.start();
}

bool RelaySigns::isSilent(std::chrono::milliseconds untilFirst) const
{
    return m_sinceSign.hasExpired((m_isAnswered ? patience(usualGap()) : untilFirst).count());
}

std::chrono::milliseconds RelaySigns::patience(std::chrono::milliseconds least) const
{
    const qint64 last = isShared() ? 0 : lastShare * m_proof->lastTime();
    return std::max(onThisLine(least), std::chrono::milliseconds(std::max(probeShare * m_proof->time(), last)));
}

/// Behind a whole answer there is something to wait for only where it is not known why the next one does not come.
std::chrono::milliseconds RelaySigns::usualGap() const
{
    if (!m_pace.isAmidChunks() && !m_pace.isRest())
        return m_isRelayWaiting || isShared() ? wholeGap : ChunkPace::usualGap;
    return m_pace.gap(isLossy(), roundTrip());
}

bool RelaySigns::isShared() const
{
    return m_sinceOthers.isValid() && !m_sinceOthers.hasExpired(othersMemory.count());
}

bool RelaySigns::isLossy() const
{
    return m_sinceLoss.isValid() && !m_sinceLoss.hasExpired(lossMemory.count());
}

std::chrono::milliseconds RelaySigns::onThisLine(std::chrono::milliseconds patience) const
{
    return patience * (isLossy() ? lossyPatience : 1);
}

/// In ms; 0 while that is not known.
double RelaySigns::roundTrip() const
{
    return m_path->record().roundTrip().value_or(0);
}
