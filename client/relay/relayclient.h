#pragma once

#include "client/relay/fragments.h"
#include "client/relay/packetseries.h"
#include "client/relay/proof.h"
#include "client/relay/relaysigns.h"
#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>

class BoxPath;

/// The peer's side of the conversation: brings one HTTP request at a time to the box and confirms the packets of the
/// response. Nothing reaches its caller but the answer to what it asked: where the relay may owe an answer to an
/// earlier request, that is waited for first. Lives in the event loop of its thread and never blocks.
class RelayClient : public QObject
{
    Q_OBJECT

public:
    enum class Failure {
        NoAnswer,  // the box or its web server does not answer
        CutShort,  // part of the response is lost for good
        Fragments, // the response did not come, or is not asked for, as it may be too long for this network
        TooLong,   // the request is
    };
    /// What is known of a request.
    struct Kind {
        bool mayRepeat = false; // the web server may well get it twice (RFC 9110 calls such methods idempotent), as it
                                // does when the relay is restarted meanwhile
        bool isShort = false;   // it is sent also where a long response would not come through
        bool isPart = false;    // the web server has just given another part of the same, and gives this one at once
    };
    /// What the transfer of the present response has taken so far.
    struct Traffic {
        qint64 bytes = 0;
        int packets = 0;
        int repeats = 0; // packets that came again, since a confirmation was lost
    };

    /// `path` and its names of peer and box must outlive the client. `timeout`: how long, in ms, a request may wait for
    /// an answer, and a response make no progress.
    RelayClient(BoxPath *path, QString uuid, QString boxUuid, int timeout, QObject *parent = nullptr);

    /// Bytes of a request: it must fit one datagram, of at most 65,507 bytes over IPv4, behind the header.
    static constexpr int longestRequest = 65507 - datagram::requestPayloadOffset;

    /// Brings a request to the box; one at a time.
    void send(const QByteArray &httpRequest, Kind kind);

    /// Tells that the response is whole.
    void finish();
    /// Gives the present request up. What still comes for it is taken in and thrown away, also when none follows.
    void abandon();

    /// Whether the relay waits for the end of a chunked response, as far as is known here: with it, and not before, it
    /// goes on to the next request.
    bool isRelayWaiting() const { return m_signs.isRelayWaiting(); }
    /// Tells that what came was the answer to what somebody had asked to prove, and had the relay forget too early.
    void expectSlow();

    /// Whether the network drops IP fragments, so that no response longer than Fragments::longestResponse comes
    /// through.
    bool areFragmentsDropped() const { return m_fragments.areDropped(); }

    /// Takes in what the relay still has for this peer and has it forget the rest, so that it resends nothing to a peer
    /// that has gone; left() follows, also when the relay does not answer, and nothing else does.
    void leave();

    const Traffic &traffic() const { return m_traffic; }

signals:
    /// The next bytes of the response, each delivered once and in order.
    void received(const QByteArray &bytes);
    /// The relay has delivered all it had read from the web server at once; more may follow for a chunked response.
    void seriesEnded();
    void failed(RelayClient::Failure failure, const QString &reason);
    void left();
    /// What is special about the network, for a person.
    void noticed(const QString &text);

private:
    enum class State { Idle, Opening, Proving, Clearing, Sizing, Requesting, Receiving };

    void take(const QByteArray &datagram);
    void noteHeard();
    void takeConfirmation(quint16 messageId);
    void takePacket(const QByteArray &packet);
    void endRepeats(quint16 messageId);
    bool endLongPause();
    void takeSlice(const datagram::ResponseHeader &header, const QByteArray &slice);
    void tick();
    bool tickPath();
    bool tickHeld();
    void tickProof();
    void checkUnanswered();
    bool isSilent() const;
    bool isBefore() const;
    void rest();
    void enter(State state);
    void proceed();
    void transmit();
    void refuse(Failure failure, const QString &reason);
    void fail(Failure failure, const QString &reason);
    QByteArray request(const QByteArray &http);

    BoxPath *m_path;
    const QString m_uuid;
    const QString m_boxUuid;
    const int m_timeout;
    QTimer m_resend;
    QTimer m_receipts;
    QByteArray m_receipt; // of the relay's last packet
    int m_receiptsSent = 0;
    int m_copies = 0; // sent of what the relay is to hear
    QElapsedTimer m_sinceProgress;
    QElapsedTimer m_sinceHeld; // the relay has confirmed the request; invalid: not yet
    QElapsedTimer m_sinceTransmit;
    QElapsedTimer m_sinceSend;     // or since the end of what was sent
    QElapsedTimer m_sinceReopened; // the path, while an answer is due; invalid: it has not been
    QElapsedTimer m_sinceEcho;     // was asked for
    qint64 m_partTime = 0;         // when the last part of the response came
    State m_state = State::Idle;
    bool m_isSure = false;       // the web server owes this peer nothing but the answer to the present request
    bool m_isDoubtful = false;   // whether it does so for another peer
    bool m_isRestOwed = false;   // of chunks, on the link that what proves is written to, and then it may be closed
    bool m_isLongInVain = false; // what the relay delivers at present, to nobody
    bool m_isLost = false;       // what the relay sends this peer at present
    bool m_hasRequest = false;
    bool m_isAsked = false;   // the present request may be at the web server
    bool m_isCleared = false; // nothing has been asked since the relay was told to forget
    bool m_isLeaving = false;
    bool m_hasReopened = false; // the path, for the present request
    quint16 m_lastId = 0;
    quint16 m_messageId = 0; // of the present request
    QByteArray m_request;    // datagram
    Kind m_kind;
    QByteArray m_look; // datagram that is asked behind the request, whether that has been answered
    struct {
        quint16 messageId = 0;
        QElapsedTimer sinceHeld; // invalid: there is none
    } m_unanswered;              // request, given up before any of its answer came
    Fragments m_fragments;
    Proof m_proof;
    RelaySigns m_signs;
    PacketSeries m_series;
    Traffic m_traffic;
};
