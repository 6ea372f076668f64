// The conversation: the request until its confirmation comes, then packets, each confirmed as often as it comes.
//
// Nothing ties an answer to its request but their order: the relay writes one request at a time to its link to the web
// server, gives what is read next to the request at the head of its queue, takes that off when it has seen the end of
// the response, and closes the link in the same step. So the request behind it is written to a fresh link, which owes
// nobody an answer, and what comes back there is its own. Whoever has the relay forget a request that the web server
// works on leaves an open link behind, and the next request to be written, whosever it is, gets that answer. Therefore:
//
// - A request that is given up stays in the relay's queue. Its packets are confirmed and thrown away; the next request
//   waits its turn behind it. The relay is asked to forget (ConnectRequest) only where everything asked has been
//   answered: the relay has read all of a response in no chunks when its first packet comes, and most likely the end of
//   any that has come without a pause for half a second, and what proves behind it soon after; or where no sign of an
//   answer came for a minute, or an answer has come and then neither more of it nor the one behind it for longer than
//   it pauses (ChunkPace): then the web server has most likely closed the link, or what another peer was sent has left
//   the relay waiting, and that would be for ever. A wrong guess is survived: should the web server only have paused,
//   the rest that somebody else gets begins in the middle, and should it have been slow to answer what proves, he gets
//   that in front of his own answer, or a head that announces more than comes: he sees that it is not his, and asks
//   again. He does not where he asked for a head himself, or where the web server has a page for every path and gives
//   ranges of it: then the lengths or dates that differ end in 502, most likely.
// - After anything that leaves a doubt (given up, time-out, broken off, a start) two harmless requests go ahead, HEAD
//   of a random path. The second one can only be answered when the first has been taken off the queue and its link
//   closed, whatever answer the first one got. The states the relay can be in, and how each ends:
//     - busy with a request of ours or another's: the two wait behind it;
//     - a link that owes an answer nobody waits for: the first one gets it, or the rest of it, and the link is closed;
//     - waiting for the end of chunks that never comes, with nothing owed: the first one is answered and stays at the
//       head. When the second one is silent then, the relay is asked to forget both, and from there on behind every
//       response, until a chunked response has come to its end: that ends the relay's waiting too;
//     - a head that nobody will answer: no sign, see above, and once more from the start. Where it was written behind
//       chunks that nobody waits for any more, four seconds without a sign are enough, once.
// - Whatever stays at the head holds up every other peer too. So all this is done at once, and not only when there is a
//   next request; and another peer's chunks may have left the relay waiting while it gave us nothing for a while, so
//   that our response stays at the head although it is whole: that is a doubt as well.
//
// On a network that drops IP fragments a long answer never comes. The relay repeats its packet for 25 s, holds all
// others up, and then drops what it has for this peer, answers of harmless requests too; asked again, those are
// answered anew. One that is answered then, while the request before it was not, tells that the answer is lost, and the
// relay free.

#include "client/relay/relayclient.h"

#include "client/path/boxpath.h"

#include <QDateTime>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr auto tickSpacing = 100ms;
constexpr auto proofTick = 25ms; // others wait meanwhile
constexpr std::chrono::milliseconds resendSpacing = 500ms;
constexpr std::chrono::milliseconds reminder = 5s;         // a relay that was restarted has forgotten the request
constexpr std::chrono::milliseconds pathPatience = 2500ms; // unconfirmed in five sends, the request has no path
constexpr std::chrono::milliseconds packetPatience = 2s;   // four sends of the relay that do not come
constexpr std::chrono::milliseconds reopenedPatience = 1s; // two, on a path that has been opened anew
constexpr auto receiptSpacing = 120ms; // between copies there, as a lost one costs a packet once more
constexpr int receiptCopies = 2;
constexpr int mostInVain = 3; // packets of what was given up that cost less than having the relay forget them
constexpr std::chrono::milliseconds leaveLimit = 3s;
constexpr std::chrono::milliseconds signLimit = 60s;    // as long as web servers themselves wait for an application
constexpr std::chrono::milliseconds restLimit = 4s;     // where the link may have been closed amid chunks
constexpr std::chrono::milliseconds othersTurn = 300ms; // in less hardly anybody has left the relay waiting: its
constexpr int othersShare = 2;                          // silence is waited for, 400 ms or three HEADs
constexpr std::chrono::milliseconds backgroundLimit = 120s;
// The relay takes an id that it has answered within a minute for one that comes again, also from a nat-peer that has
// been killed since. So the ids go with the clock; they never need more, as a request takes the relay two turns.
constexpr std::chrono::milliseconds leastIdSpacing = 10ms;
constexpr int mostAhead = 1000;                       // of the clock
constexpr quint16 socketId = 1;                       // one request at a time needs no more
constexpr quint16 paddedSocketId = 2;                 // tells the confirmations of a long copy from those of the short
constexpr std::chrono::milliseconds packetLife = 24s; // for so long the relay repeats a packet, at the least
constexpr std::chrono::milliseconds longestPause = 20s; // in less it drops none that follows on another
constexpr std::chrono::milliseconds answerLife = 26s;   // and not so long
constexpr std::chrono::milliseconds lastReminder = 22s; // later ones might have the web server answer once more
constexpr std::chrono::milliseconds lookReminder = 1s;

/// In ms, those in which the machine sleeps among them.
qint64 sinceBoot()
{
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::milliseconds(std::chrono::seconds(time.tv_sec)).count() + time.tv_nsec / 1'000'000;
}

/// Makes a request longer than any usual MTU, in lines that small web servers take too.
QByteArray padding()
{
    constexpr int lines = 4;
    constexpr int length = 450;
    return ("X-Padding: " + QByteArray(length, 'x') + "\r\n").repeated(lines);
}
} // namespace

RelayClient::RelayClient(BoxPath *path, QString uuid, QString boxUuid, int timeout, QObject *parent)
    : QObject(parent), m_path(path), m_uuid(std::move(uuid)), m_boxUuid(std::move(boxUuid)), m_timeout(timeout),
      m_proof([this](const QByteArray &http) { return request(http); }), m_signs(path, &m_proof)
{
    m_resend.setInterval(tickSpacing);
    connect(&m_resend, &QTimer::timeout, this, &RelayClient::tick);
    m_receipts.setInterval(receiptSpacing);
    connect(&m_receipts, &QTimer::timeout, this, [this] {
        m_path->send(m_receipt);
        if (++m_receiptsSent > receiptCopies)
            m_receipts.stop();
    });
    connect(path, &BoxPath::received, this, &RelayClient::take);
    connect(&m_fragments, &Fragments::due, path, &BoxPath::send);
    connect(&m_fragments, &Fragments::noticed, this, &RelayClient::noticed);
    connect(&m_fragments, &Fragments::decided, this, [this] {
        if (m_state == State::Sizing)
            proceed();
    });
    connect(path, &BoxPath::opened, this, [this] {
        m_fragments.forget();
        if (m_state == State::Opening)
            proceed();
        else if (m_state == State::Receiving || m_state == State::Requesting)
            m_sinceReopened.start();
        else if (m_state == State::Idle && m_hasReopened && !m_isSure)
            rest(); // what was given up meanwhile
    });
    connect(path, &BoxPath::moved, this, [this] {
        m_fragments.forget();
        m_isSure &= m_state != State::Sizing;
        if (m_state == State::Sizing)
            proceed();
    });
    connect(path, &BoxPath::failed, this, [this](const QString &reason) {
        if (m_state == State::Opening)
            fail(Failure::NoAnswer, reason);
    });
}

QByteArray RelayClient::request(const QByteArray &http)
{
    const auto now = static_cast<quint16>(QDateTime::currentMSecsSinceEpoch() / leastIdSpacing.count());
    const bool isUsed = static_cast<quint16>(m_lastId - now) < mostAhead;
    m_lastId = isUsed ? static_cast<quint16>(m_lastId + 1) : now;
    return datagram::request(m_lastId, socketId, m_uuid, m_boxUuid, http);
}

void RelayClient::send(const QByteArray &httpRequest, Kind kind)
{
    m_request = request(httpRequest);
    m_messageId = m_lastId;
    m_kind = kind;
    m_isSure &= m_fragments.isTried(); // what proves the one finds out about the other
    m_look.clear();
    m_series.clear();
    m_traffic = {};
    m_sinceHeld.invalidate();
    m_sinceSend.start();
    m_hasRequest = true;
    m_hasReopened = false;
    m_sinceReopened.invalidate();
    if (!m_path->isFresh())
        enter(State::Opening);
    else if (!isBefore())
        proceed();
}

/// The path is open: on with what comes before the request, if anything, or with the request.
void RelayClient::proceed()
{
    const bool isHopeless = !m_isSure && (m_isLost || isSilent());
    if (!m_isCleared && (isHopeless || (m_isSure && (m_signs.isRelayWaiting() || m_isLeaving))))
        enter(State::Clearing);
    else if (m_isLeaving && (m_isSure || m_isCleared))
        emit left();
    else if (!m_isSure || m_isDoubtful)
        enter(State::Proving);
    else if (!m_hasRequest)
        enter(State::Idle);
    else if (m_fragments.isTrying())
        enter(State::Sizing);
    else if (!m_fragments.reachesBox(m_request.size()))
        refuse(Failure::TooLong, QStringLiteral("this network drops IP fragments: a request must fit into %1 bytes")
                                     .arg(Fragments::longestSafe - datagram::requestPayloadOffset));
    else if (!m_kind.isShort && areFragmentsDropped())
        refuse(Failure::Fragments, QStringLiteral("this network drops IP fragments"));
    else
        enter(State::Requesting);
}

/// Before it is sent.
void RelayClient::refuse(Failure failure, const QString &reason)
{
    m_hasRequest = false;
    enter(State::Idle);
    emit failed(failure, reason);
}

/// Whether there will be no answer any more.
bool RelayClient::isSilent() const
{
    return m_signs.isSilent(m_isRestOwed ? m_signs.patience(restLimit) : signLimit);
}

bool RelayClient::isBefore() const
{
    return m_state == State::Proving || m_state == State::Clearing;
}

void RelayClient::finish()
{
    rest();
}

void RelayClient::abandon()
{
    if (m_isAsked) { // what has not been sent leaves no doubt behind
        m_isSure = false;
        if (m_state != State::Receiving) {
            m_signs.startSilence();
        }
    }
    m_isLost |= m_state == State::Receiving && (m_signs.isWhole() || m_signs.isBacklog());
    if (m_state == State::Requesting && !m_hasReopened)
        m_unanswered = {m_messageId, m_sinceHeld};
    rest();
}

/// Settles what the request leaves open, at once and not before the next one, as other peers wait behind it.
void RelayClient::rest()
{
    m_isAsked = m_hasRequest = false;
    if (isBefore())
        return;
    m_sinceSend.start();
    if (m_path->isFresh() && m_state != State::Opening)
        proceed();
    else
        enter(State::Idle);
}

void RelayClient::leave()
{
    if (m_isLeaving)
        return;
    m_isLeaving = true;
    QTimer::singleShot(leaveLimit, this, &RelayClient::left);
    if (m_state != State::Idle)
        abandon();
    else if (m_path->isFresh())
        proceed();
    if (m_state == State::Idle)
        emit left();
}

void RelayClient::enter(State state)
{
    m_state = state;
    m_copies = 0;
    m_sinceProgress.start();
    if (state == State::Idle)
        m_resend.stop();
    else
        m_resend.start(state == State::Proving ? proofTick : tickSpacing);
    if (state == State::Clearing)
        m_fragments.stop();
    if (state == State::Proving) {
        m_isSure = m_isDoubtful = false;
        m_proof.begin();
    }
    if (state == State::Opening)
        m_path->open();
    else
        transmit();
}

/// What the relay has to hear again and again until it reacts.
void RelayClient::transmit()
{
    m_sinceTransmit.start();
    m_copies++;
    m_isCleared &= m_state == State::Clearing || m_state == State::Idle;
    if (m_state == State::Clearing) {
        m_path->send(datagram::link(DatagramKind::ConnectRequest, m_uuid, m_boxUuid));
    } else if (m_state == State::Proving) {
        m_path->send(m_proof.datagram());
    } else if (m_state == State::Requesting) {
        m_isAsked = true;
        m_isRestOwed = false;
        m_path->send(m_look.isEmpty() ? m_request : m_look);
    }
}

void RelayClient::tick()
{
    const auto isStuck = [this](std::chrono::milliseconds time) { return m_sinceProgress.hasExpired(time.count()); };
    if (m_state == State::Opening)
        return; // the path has its own limit
    if (m_state == State::Receiving && m_signs.isRelayWaiting() && !m_signs.isInChunks() && m_signs.isAnswered() &&
        isStuck(m_signs.onThisLine(ChunkPace::usualGap))) {
        m_signs.setRelayWaiting(false); // another peer's chunks have come to their end, and the relay has gone on
        m_isDoubtful = true;
        return emit seriesEnded();
    }
    if (endLongPause())
        return;
    if (m_state == State::Receiving && m_series.isUnderWay() && isStuck(m_signs.onThisLine(packetPatience)) &&
        !tickPath())
        return;
    if (m_state == State::Requesting && m_sinceHeld.isValid() && !tickHeld())
        return;
    if (m_hasRequest && isBefore() && m_sinceSend.hasExpired(m_timeout))
        return fail(Failure::NoAnswer,
                    QStringLiteral("no answer: the box still waits for its web server's answer to an "
                                   "earlier request"));
    if (!isBefore() && isStuck(std::chrono::milliseconds(m_timeout)))
        return m_state == State::Receiving
                   ? fail(Failure::CutShort, QStringLiteral("the response is cut short, the rest does not come"))
                   : fail(Failure::NoAnswer,
                          areFragmentsDropped()
                              ? QStringLiteral("no answer to the request; this network drops IP fragments, and it may "
                                               "have been too long to come without")
                              : QStringLiteral("no answer to the request"));

    if (!m_hasRequest && m_sinceSend.hasExpired(backgroundLimit.count()))
        return enter(State::Idle);
    if (m_state == State::Proving)
        tickProof();
    const auto isHeldFor = [this](std::chrono::milliseconds time) {
        return m_state == State::Requesting && m_sinceHeld.isValid() && m_sinceHeld.hasExpired(time.count());
    };
    if (isHeldFor(answerLife) && m_look.isEmpty()) {
        m_look = request(harmlessRequest());
        return transmit();
    }
    const bool isHeld =
        (m_state == State::Requesting && m_sinceHeld.isValid()) || (m_state == State::Proving && m_proof.isHeld());
    const bool isLooking = m_state == State::Proving || !m_look.isEmpty();
    const bool mayRepeat = isLooking || (m_kind.mayRepeat && !isHeldFor(lastReminder));
    const std::chrono::milliseconds spacing = isLooking ? lookReminder : reminder;
    if (!m_isLeaving && !isHeld && m_state != State::Receiving && !m_hasReopened && isStuck(pathPatience)) {
        m_hasReopened = true;
        enter(m_hasRequest ? State::Opening : State::Idle);
    } else if (m_sinceTransmit.hasExpired(resendSpacing.count()) &&
               (!isHeld || (mayRepeat && m_sinceTransmit.hasExpired(spacing.count())))) {
        transmit();
    }
}

/// The rest of a read is sent where the request came from. Where a router has been restarted, or this machine has moved
/// to another network, that is nowhere any more: false, and the response is given up. What the relay has of it has left
/// the web server, so that it may forget it.
bool RelayClient::tickPath()
{
    if (!m_hasReopened) {
        m_hasReopened = true;
        m_path->open();
    } else if (m_sinceReopened.isValid() && m_sinceReopened.hasExpired(m_signs.onThisLine(reopenedPatience).count())) {
        m_isLost = true;
        fail(Failure::CutShort, QStringLiteral("the response is cut short, the network has changed"));
        return false;
    }
    return true;
}

/// The relay has the request, and the answer may take its time; but if the box is not heard at all, then the path has
/// broken, and the answer goes where nobody is any more. A part that does not come over the new path either was written
/// long ago, most likely, so that the relay may forget it, and is asked for it again: false.
bool RelayClient::tickHeld()
{
    const auto isUnheardFor = [this](std::chrono::milliseconds time) {
        return m_path->sinceHeard() > m_signs.onThisLine(time).count();
    };
    if (m_hasReopened) {
        const bool isLost = m_kind.isPart && m_sinceReopened.isValid() &&
                            m_sinceReopened.hasExpired(m_signs.onThisLine(packetPatience).count());
        m_isLost |= isLost;
        if (isLost)
            fail(Failure::CutShort, QStringLiteral("the answer was lost, the network has changed"));
        return !isLost;
    }
    if (isUnheardFor(pathPatience)) {
        m_hasReopened = true;
        m_path->open();
    } else if (isUnheardFor(resendSpacing) &&
               (!m_sinceEcho.isValid() || m_sinceEcho.hasExpired(resendSpacing.count()))) {
        m_sinceEcho.start();
        m_path->keepAlive();
    }
    return true;
}

void RelayClient::tickProof()
{
    // Answered and still at the head of the relay's queue: the relay waits for an end that will not come. Nothing that
    // has been asked is unanswered, so that it may forget.
    if (!isSilent())
        return;
    if (m_signs.isAnswered()) {
        m_isSure = m_proof.isAnswered() && m_proof.isHeld();
        if (!m_signs.isRelayWaiting())
            m_signs.noteOthers();
        m_signs.setRelayWaiting(true);
    }
    proceed();
}

void RelayClient::expectSlow()
{
    m_proof.expectSlow();
    m_signs.forgetOthers();
}

void RelayClient::fail(Failure failure, const QString &reason)
{
    abandon();
    emit failed(failure, reason);
}

void RelayClient::take(const QByteArray &data)
{
    const auto kind = static_cast<DatagramKind>(data.at(0));
    if (kind == DatagramKind::ConnectRequest && m_state == State::Clearing) {
        noteHeard();
        m_isCleared = true;
        m_isLost = m_isLongInVain = false;
        m_isRestOwed = m_signs.isRestOwed();
        m_signs.forgetRepeats();
        m_signs.startSilence();
        m_unanswered = {};
        proceed();
    } else if (kind == DatagramKind::Confirmation) {
        m_fragments.takeConfirmation(data);
        takeConfirmation(datagram::readInteger<quint16>(data, datagram::messageIdOffset));
    } else if (kind == DatagramKind::DataPacket && data.size() >= datagram::responsePayloadOffset) {
        takePacket(data);
    }
}

/// What the relay had to hear has been heard. Copies sent on a path that had to be opened anew tell nothing of this
/// one.
void RelayClient::noteHeard()
{
    if (m_copies > 1 && !m_hasReopened)
        m_signs.noteLoss();
    m_copies = 0;
}

void RelayClient::takeConfirmation(quint16 messageId)
{
    const bool wasHeld = m_proof.isHeld();
    if (m_state == State::Requesting && messageId == m_messageId && !m_sinceHeld.isValid()) {
        noteHeard();
        m_sinceHeld.start();
        if (m_hasReopened) // a copy sent before that may have come, and its confirmation not
            m_sinceReopened.start();
    } else if (m_state == State::Proving && m_proof.takeConfirmation(messageId)) {
        noteHeard();
        m_sinceProgress.start();
        transmit();
        // Under the same id the relay takes one of the two, and confirms each copy of both.
        m_fragments.tryWith(datagram::request(m_lastId, paddedSocketId, m_uuid, m_boxUuid, harmlessRequest(padding())),
                            m_proof.datagram());
    } else if (m_state == State::Proving && m_proof.isHeld() && !wasHeld) {
        noteHeard();
    }
}

void RelayClient::takePacket(const QByteArray &packet)
{
    const datagram::ResponseHeader header = datagram::readResponseHeader(packet);
    const QByteArray slice = packet.mid(datagram::responsePayloadOffset);
    // Always: the relay sends nothing else to anybody before this packet is confirmed.
    m_receipt = datagram::packetReceipt(header, m_uuid, m_boxUuid, slice);
    m_receiptsSent = 1;
    m_path->send(m_receipt);
    takeConfirmation(header.messageId); // which may have been lost
    if (m_state == State::Receiving && m_series.isUnderWay() && m_sinceProgress.hasExpired(resendSpacing.count()))
        m_signs.noteLoss();
    if (m_signs.isLossy())
        m_receipts.start();

    m_signs.take(packet, header, slice, header.messageId == m_messageId, m_state == State::Receiving);
    m_fragments.takeSize(packet.size());
    const bool isGivenUp = header.messageId == m_unanswered.messageId;
    if (isGivenUp)
        m_unanswered = {};
    const bool isWanted = m_state == State::Receiving;
    if ((m_signs.isRelayWaiting() || !isWanted) && m_signs.areRepeatsEndless(isWanted))
        return endRepeats(header.messageId);
    if (isGivenUp) // a whole one, as above
        m_isLongInVain = header.index == 0 && header.count > mostInVain && slice.startsWith("HTTP/1.") &&
                         !m_signs.isInChunks() && !m_signs.isRelayWaiting();
    if (m_state == State::Proving && !m_isLost && m_signs.isAnsweredBehind() &&
        (m_isLongInVain || (m_signs.isBacklog() && !m_proof.isOwn(header.messageId)))) {
        m_isLost = true;
        return proceed();
    }
    if (m_state == State::Proving && m_proof.takePacket(header, slice, m_signs.gap())) {
        checkUnanswered();
        m_fragments.goOn();
        m_signs.forgetPauses();
        m_signs.setRelayWaiting(false);
        m_isSure = true;
        m_isRestOwed = m_isLost = m_isLongInVain = false;
        // Or another peer has left the relay waiting between the two, so that the second one stays at its head.
        m_isDoubtful = m_signs.gap() > std::max<qint64>(othersTurn.count(), othersShare * m_proof.time());
        return proceed();
    }
    if (m_state == State::Requesting && isOf(header.messageId, m_look)) {
        if (!m_hasReopened) {
            m_unanswered = {m_messageId, m_sinceHeld};
            checkUnanswered();
        }
        m_sinceHeld.invalidate();
        return fail(Failure::Fragments,
                    areFragmentsDropped()
                        ? QStringLiteral("the answer was lost on its way: it is too long for this network, which drops "
                                         "IP fragments")
                        : QStringLiteral("the answer was lost on its way"));
    }
    const bool isExpected = m_state == State::Requesting || m_state == State::Receiving;
    if (!isExpected || header.messageId != m_messageId)
        return;
    if (m_signs.isRepeated()) {
        m_traffic.repeats++;
        m_signs.noteLoss();
        return;
    }
    if (endLongPause())
        return;
    // Meanwhile another peer may have left the relay waiting for an end: then this request stays at its head.
    m_isDoubtful |= m_state == State::Requesting && m_signs.gap() > othersTurn.count();
    m_state = State::Receiving;
    m_hasReopened = false;
    m_sinceReopened.invalidate();
    m_sinceProgress.start();
    m_partTime = sinceBoot();
    m_traffic.packets++;
    m_traffic.bytes += slice.size();
    takeSlice(header, slice);
}

/// A later request has been answered, so that the relay has nothing any more for the one that was given up.
void RelayClient::checkUnanswered()
{
    const QElapsedTimer since = std::exchange(m_unanswered, {}).sinceHeld;
    if (since.isValid() && since.hasExpired(packetLife.count()))
        m_fragments.takeLoss();
}

/// The relay stands still over a packet that it will drop, and with it all that it has for this peer. What it has left
/// the web server, and only the rest of the chunks is owed.
void RelayClient::endRepeats(quint16 messageId)
{
    m_signs.forgetRepeats();
    m_signs.forgetLoss(); // that was none
    if (m_state == State::Receiving && messageId == m_messageId) {
        m_isLost = true;
        fail(Failure::CutShort,
             QStringLiteral("the response is cut short: the relay does not get past equal parts of it "
                            "that the web server sends one by one"));
    } else if (isBefore()) {
        m_isLost = true;
        m_isSure = false;
        proceed();
    }
}

/// What comes behind a long pause of the web server may follow on a part that the relay has dropped meanwhile, so that
/// nothing of it is of use, and most likely nothing comes: the link has broken, which only the relay sees. True where
/// the response was given up therefore.
bool RelayClient::endLongPause()
{
    const bool isBetweenReads = m_state == State::Receiving && !m_series.isUnderWay();
    if (!isBetweenReads || sinceBoot() - m_partTime < longestPause.count())
        return false;
    fail(Failure::CutShort,
         QStringLiteral("the response has paused for %1 s: either it has broken off, or the relay may "
                        "have dropped a part that did not come through")
             .arg(longestPause / 1s));
    return true;
}

void RelayClient::takeSlice(const datagram::ResponseHeader &header, const QByteArray &slice)
{
    const QString gap = m_series.take(header, slice.size());
    if (!gap.isEmpty())
        return fail(Failure::CutShort, gap);
    emit received(slice);
    if (m_state != State::Receiving || m_series.isUnderWay())
        return;
    const QString shortage = m_series.shortage();
    if (!shortage.isEmpty())
        return fail(Failure::CutShort, shortage);
    emit seriesEnded();
}
