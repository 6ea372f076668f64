#include "client/relay/chunkpace.h"

#include <algorithm>
#include <cmath>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds leastGap = 400ms; // amid our own chunks, where something is known of their pauses
constexpr double usualPause = 2.5;                    // times the longest one until now, if that is longer
constexpr double regularPause = 1.5;                  // the same where all of them are much alike
constexpr int leastPauses = 2;                        // from which to guess
constexpr std::chrono::milliseconds mostPause = 10s;
constexpr std::chrono::milliseconds backlogTime = 500ms; // in which web servers on the same machine write any page
constexpr double noPause = 60;                           // ms beside a round trip; a turn of the relay is ten
constexpr int mostPauses = 4; // of so many there may be a longer one, as one of the machines was busy
} // namespace

void ChunkPace::take(const datagram::ResponseHeader &header, const QByteArray &slice, qint64 gap, bool isRelayWaiting,
                     bool isPresent)
{
    const bool isSame = std::exchange(m_messageId, header.messageId) == header.messageId;
    if (!isSame) {
        m_isRest = header.index == 0 && !slice.startsWith("HTTP/");
        m_sinceBeginning.start();
        m_pauses.clear();
        m_isBulk = false;
        if (isPresent)
            forgetPauses();
    } else if (header.index == 0) {
        m_shortestPause = m_pauseCount == 0 ? gap : std::min(m_shortestPause, gap);
        m_longestPause = std::max(m_longestPause, gap);
        m_pauseCount++;
        m_pauses.append(gap);
    }
    const bool isBeginning = slice.startsWith("HTTP/1.");
    const bool isChunked = isBeginning && slice.left(slice.indexOf("\r\n\r\n")).contains(chunkedField);
    m_sinceLast.start();
    m_isBulk |= header.count > 1;
    m_isFromBeginning = isSame ? m_isFromBeginning : isBeginning;
    m_isAmidChunks = isRelayWaiting && (isSame ? m_isAmidChunks : isChunked);
}

bool ChunkPace::isBacklog(double roundTrip) const
{
    const auto isPause = [roundTrip](qint64 time) { return static_cast<double>(time) > roundTrip + noPause; };
    const auto pauses = std::count_if(m_pauses.begin(), m_pauses.end(), isPause);
    return m_isFromBeginning && !isPause(m_sinceLast.elapsed()) && pauses * mostPauses <= m_pauses.size() &&
           age() >= backlogTime.count();
}

std::chrono::milliseconds ChunkPace::gap(bool isLossy, double roundTrip) const
{
    const auto longest = static_cast<double>(m_longestPause);
    const bool isRegular =
        m_pauseCount >= leastPauses && longest <= regularPause * static_cast<double>(m_shortestPause);
    const auto usual = std::chrono::milliseconds(std::llround((isRegular ? regularPause : usualPause) * longest));
    const auto pause = std::min(usual, mostPause);
    const bool isUnknown = m_pauseCount < leastPauses && !m_isBulk; // the first part follows on the head at once
    if (isLossy || m_isRest || isUnknown)
        return std::max(usualGap, pause);
    return std::max(pause, std::min(usualGap, leastGap + std::chrono::milliseconds(static_cast<int>(roundTrip))));
}
