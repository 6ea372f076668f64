#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QVector>

#include <chrono>

/// How fast the parts of a chunked response come, and what that tells of the web server. Whoever gets the rest of one
/// by mistake sees that it is no answer.
class ChunkPace
{
public:
    /// What the relay takes for the beginning of chunks, in these letters and anywhere.
    static constexpr char chunkedField[] = "Transfer-Encoding: chunked";
    /// Between parts of one that follow each other.
    static constexpr std::chrono::milliseconds usualGap{1000};

    /// The next packet, of whatever answer; `gap`: ms since the one before. `isRelayWaiting`: for the end of chunks.
    /// `isPresent`: it belongs to the present request.
    void take(const datagram::ResponseHeader &header, const QByteArray &slice, qint64 gap, bool isRelayWaiting,
              bool isPresent);
    /// The web server's link is a fresh one.
    void forgetPauses() { m_pauseCount = 0, m_longestPause = 0; }

    /// Whether the link owes the rest of our chunks and nothing else.
    bool isAmidChunks() const { return m_isAmidChunks; }
    /// Whether what came last was the rest of something, somebody else's perhaps.
    bool isRest() const { return m_isRest; }
    /// Whether the relay has so much of the present answer in store that the web server is done, most likely: for a
    /// while its parts have come one behind the other. `roundTrip`: ms.
    bool isBacklog(double roundTrip) const;
    /// For how long the present answer has been coming.
    qint64 age() const { return m_sinceBeginning.elapsed(); }
    /// Amid chunks or a rest: for how long nothing comes until the web server has most likely closed its link.
    /// `roundTrip`: ms.
    std::chrono::milliseconds gap(bool isLossy, double roundTrip) const;

private:
    quint16 m_messageId = 0; // of the answer that came last
    bool m_isFromBeginning = false;
    bool m_isBulk = false; // much of it is written at once
    bool m_isAmidChunks = false;
    bool m_isRest = false;
    int m_pauseCount = 0;       // between two reads of it
    qint64 m_shortestPause = 0; // ms
    qint64 m_longestPause = 0;
    QVector<qint64> m_pauses; // all of them
    QElapsedTimer m_sinceBeginning;
    QElapsedTimer m_sinceLast;
};
