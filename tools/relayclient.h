#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUdpSocket>

struct PeerConfig;

/// The peer's side of the protocol: brings one HTTP request at a time to the box and confirms the packets of the
/// response. Lives in the event loop of its thread and never blocks.
class RelayClient : public QObject
{
    Q_OBJECT

public:
    /// `timeout`: how long, in ms, a response may make no progress.
    RelayClient(const PeerConfig &config, const QHostAddress &box, int timeout, QObject *parent = nullptr);

    /// Bytes of a request: it must fit one datagram, of at most 65,507 bytes over IPv4, behind the header.
    static constexpr int longestRequest = 65507 - datagram::requestPayloadOffset;

    /// Has the relay forget whatever it still holds for this peer, then brings it the request.
    void send(const QByteArray &httpRequest);

    /// Has the relay forget what it holds for this peer, so that it resends nothing to a peer that has gone; left() or
    /// failed() follows.
    void leave();

signals:
    /// The next bytes of the response, each delivered once and in order.
    void received(const QByteArray &bytes);
    /// The relay has delivered all it had read from the web server at once; more may follow for a chunked response.
    void seriesEnded();
    /// The box does not answer, or has dropped part of the response.
    void failed(const QString &reason);
    void left();

private:
    enum class State { Idle, Connecting, Requesting, Receiving, Leaving };

    void readDatagrams();
    void takePacket(const QByteArray &packet);
    void takeSlice(const datagram::ResponseHeader &header, const QByteArray &slice);
    bool isRepeated(const QByteArray &packet);
    void tick();
    void enter(State state);
    void transmit(const QByteArray &plain);
    void transmitForState();
    void fail(const QString &reason);

    const QString m_uuid;
    const QString m_boxUuid;
    const QHostAddress m_box;
    const quint16 m_port;
    const QByteArray m_key;
    const QByteArray m_iv;
    const int m_timeout;
    QUdpSocket m_socket;
    QTimer m_resend;
    QElapsedTimer m_sinceProgress;
    QElapsedTimer m_sinceTransmit;
    State m_state = State::Idle;
    bool m_isHeard = false;     // the box has answered at least once
    bool m_isConfirmed = false; // the relay holds the request
    quint16 m_messageId;
    QByteArray m_request;
    datagram::ResponseHeader m_series = {}; // of the packet taken last
    quint32 m_taken = 0;                    // bytes of that series
    QElapsedTimer m_clock;
    QHash<QByteArray, qint64> m_seen; // packets taken, and when they last came
};
