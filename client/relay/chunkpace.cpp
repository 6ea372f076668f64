#include "client/relay/chunkpace.h"

#include "client/relay/relayclient.h"

#include <algorithm>
#include <cmath>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds quickGap = 540ms; // amid our own chunks on a good line: one loss is over by then
constexpr double usualPause = 2.5;                    // times the longest one there until now, if that is longer
constexpr std::chrono::milliseconds mostPause = 10s;
constexpr std::chrono::milliseconds backlogTime = 1s; // in which web servers on the same machine write any page
constexpr double noPause = 60;                        // ms beside a round trip; a turn of the relay is ten
constexpr int mostPauses = 4; // of so many there may be a longer one, as one of the machines was busy
} // namespace

void ChunkPace::take(const datagram::ResponseHeader &header, const QByteArray &slice, qint64 gap, bool isRelayWaiting,
                     bool isPresent)
{
    const bool isSame = std::exchange(m_messageId, header.messageId) == header.messageId;
    if (!isSame) {
        m_isRest = header.index == 0 && !slice.startsWith("HTTP/");
        m_sinceBeginning.start();
        m_longestPause = isPresent ? 0 : m_longestPause;
        m_pauses.clear();
    } else if (header.index == 0) {
        m_longestPause = std::max(m_longestPause, gap);
        m_pauses.append(gap);
    }
    const bool isBeginning =
        slice.startsWith("HTTP/1.") && slice.left(slice.indexOf("\r\n\r\n")).contains(RelayClient::chunkedField);
    m_isAmidChunks = isRelayWaiting && (isSame ? m_isAmidChunks : isBeginning);
}

bool ChunkPace::isBacklog(double roundTrip) const
{
    const auto pauses = std::count_if(m_pauses.begin(), m_pauses.end(), [roundTrip](qint64 pause) {
        return static_cast<double>(pause) > roundTrip + noPause;
    });
    return m_isAmidChunks && pauses * mostPauses <= m_pauses.size() && age() >= backlogTime.count();
}

std::chrono::milliseconds ChunkPace::gap(bool isLossy, double roundTrip) const
{
    const auto usual = std::chrono::milliseconds(std::llround(usualPause * static_cast<double>(m_longestPause)));
    const auto pause = std::min(usual, mostPause);
    if (isLossy || !m_isAmidChunks)
        return std::max(usualGap, pause);
    return std::max(pause, std::min(usualGap, quickGap + std::chrono::milliseconds(static_cast<int>(roundTrip))));
}
