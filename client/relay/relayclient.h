#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QString>
#include <QTimer>

class BoxPath;

/// The peer's side of the conversation: brings one HTTP request at a time to the box and confirms the packets of the
/// response. Lives in the event loop of its thread and never blocks.
class RelayClient : public QObject
{
    Q_OBJECT

public:
    enum class Failure {
        NoAnswer, // the box or its web server does not answer
        CutShort, // part of the response is lost for good
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

    /// Brings a request to the box; one at a time. `mayRepeat`: the web server may well get it twice (RFC 9110 calls
    /// such methods idempotent), as it does when the relay is restarted meanwhile.
    void send(const QByteArray &httpRequest, bool mayRepeat);

    /// Tells that the response is whole. `isRelayDone`: the relay knows that too, and goes on to the next request.
    void finish(bool isRelayDone);
    /// Gives the present request up: the next one begins by having the relay forget this one.
    void abandon();

    /// Has the relay forget what it holds for this peer, so that it resends nothing to a peer that has gone; left()
    /// follows, also when the relay does not answer, and nothing else does.
    void leave();

    const Traffic &traffic() const { return m_traffic; }

signals:
    /// The next bytes of the response, each delivered once and in order.
    void received(const QByteArray &bytes);
    /// The relay has delivered all it had read from the web server at once; more may follow for a chunked response.
    void seriesEnded();
    void failed(RelayClient::Failure failure, const QString &reason);
    void left();

private:
    enum class State { Idle, Opening, Clearing, Flushing, Requesting, Receiving, Leaving };

    void take(const QByteArray &datagram);
    void takeConfirmation(quint16 messageId);
    void takePacket(const QByteArray &packet);
    void takeSlice(const datagram::ResponseHeader &header, const QByteArray &slice);
    bool isRepeated(const QByteArray &packet);
    void tick();
    void enter(State state);
    void proceed();
    void transmit();
    void fail(Failure failure, const QString &reason);
    QByteArray request(const QByteArray &http);

    BoxPath *m_path;
    const QString m_uuid;
    const QString m_boxUuid;
    const int m_timeout;
    QTimer m_resend;
    QElapsedTimer m_sinceProgress;
    QElapsedTimer m_sinceHeld; // the relay has confirmed the request; invalid: not yet
    QElapsedTimer m_sinceTransmit;
    State m_state = State::Idle;
    bool m_isClean = false;   // the relay holds nothing of this peer's but the present request
    bool m_mayLinger = false; // the web server may still be at work on an abandoned request
    bool m_mustClear = false; // the relay does not know the end of a response: clear before every request
    bool m_mayRepeat = false;
    bool m_isFlushed = false;   // the present request
    bool m_hasReopened = false; // the path, for the present request
    quint16 m_messageId;
    QByteArray m_flush; // datagrams
    QByteArray m_request;
    datagram::ResponseHeader m_series = {}; // of the packet taken last
    quint32 m_taken = 0;                    // bytes of that series
    Traffic m_traffic;
    QElapsedTimer m_clock;
    QHash<QByteArray, qint64> m_seen; // packets taken, and when they last came
};
