#pragma once

#include "client/relay/chunkpace.h"
#include "client/relay/proof.h"
#include "client/relay/repeats.h"
#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>

#include <chrono>

class BoxPath;

/// What the packets that come, and those that do not, tell of the relay, its link to the web server and the line. What
/// is to be done about it is the affair of who asks.
class RelaySigns
{
public:
    /// `path` and `proof` must outlive it.
    RelaySigns(const BoxPath *path, const Proof *proof);

    /// The next packet that came, of whatever answer. `isPresent`: of the present request; `isReceiving`: whose
    /// response has begun.
    void take(const QByteArray &packet, const datagram::ResponseHeader &header, const QByteArray &slice, bool isPresent,
              bool isReceiving);
    /// Whether it had come before.
    bool isRepeated() const { return m_isRepeated; }
    /// ms between it and what was before it.
    qint64 gap() const { return m_gap; }
    /// Whether it was the end of one of the relay's reads.
    bool isAnswered() const { return m_isAnswered; }
    /// Whether it was of a response in chunks, for the relay.
    bool isInChunks() const { return m_isInChunks; }

    /// Whether the relay waits for the end of chunks: with it, and not before, it goes on to the next request.
    bool isRelayWaiting() const { return m_isRelayWaiting; }
    void setRelayWaiting(bool isWaiting) { m_isRelayWaiting = isWaiting; }
    /// Whether the link owes the rest of chunks.
    bool isRestOwed() const { return m_isAnswered && ((m_pace.isAmidChunks() && !isBacklog()) || m_pace.isRest()); }
    /// Whether the relay has read all of the present answer, which is in no chunks.
    bool isWhole() const { return !m_isInChunks && !m_isRelayWaiting && !m_pace.isRest(); }
    /// The same of any answer, most likely: it has so much of it in store.
    bool isBacklog() const;
    /// Whether the web server has answered the two that prove, most likely, behind what the relay still delivers.
    bool isAnsweredBehind() const;
    /// Whether the last packet comes again and again, which cannot be due to a loss; and the web server has answered
    /// meanwhile what proves behind it, unless the response is wanted.
    bool areRepeatsEndless(bool isWanted) const;
    void forgetRepeats() { m_repeats.forget(); }

    /// From now on something is due.
    void startSilence();
    /// Whether nothing has come for so long that nothing will. `untilFirst`: where there is none yet of what is due.
    bool isSilent(std::chrono::milliseconds untilFirst) const;
    /// As long as `least`, and longer on a bad line, or where the web server is slow.
    std::chrono::milliseconds patience(std::chrono::milliseconds least) const;
    /// The web server's link is a fresh one.
    void forgetPauses() { m_pace.forgetPauses(); }

    /// Another peer has left the relay waiting, most likely, so that silence means that sooner for a while.
    void noteOthers() { m_sinceOthers.start(); }
    void forgetOthers() { m_sinceOthers.invalidate(); }

    /// A datagram was lost, as far as is known here.
    void noteLoss() { m_sinceLoss.start(); }
    void forgetLoss() { m_sinceLoss.invalidate(); }
    bool isLossy() const;
    /// As long as `patience`, and longer on a bad line.
    std::chrono::milliseconds onThisLine(std::chrono::milliseconds patience) const;

private:
    void watchRelay(const datagram::ResponseHeader &header, const QByteArray &slice, bool isReceiving);
    std::chrono::milliseconds usualGap() const;
    bool isShared() const;
    double roundTrip() const;

    const BoxPath *m_path;
    const Proof *m_proof;
    ChunkPace m_pace;
    Repeats m_repeats;
    QElapsedTimer m_sinceSign;   // of an answer to anything of ours
    QElapsedTimer m_sinceLoss;   // invalid: there was none
    QElapsedTimer m_sinceOthers; // the same
    qint64 m_gap = 0;
    bool m_isRepeated = false;
    bool m_isAnswered = false;
    bool m_isRelayWaiting = false;
    bool m_isInChunks = false;
    QByteArray m_tail; // the last bytes of the relay's present read
};
