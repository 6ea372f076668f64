#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QVector>

#include <functional>

/// An HTTP request that changes nothing, for a random path; `fields` are further ones. HTTP/1.0, as no server answers
/// that with chunks; to be kept alive, as Node.js else breaks off what it still writes on the same link when another
/// request follows.
QByteArray harmlessRequest(const QByteArray &fields = QByteArray());

/// Whether `request`, a datagram that may be empty, has this id.
bool isOf(quint16 messageId, const QByteArray &request);

/// Two harmless requests, the second behind the first. Keeps what is known of them; who uses it sends and waits.
class Proof
{
public:
    /// `request` makes a datagram of an HTTP request.
    explicit Proof(std::function<QByteArray(const QByteArray &http)> request);

    /// Anew, with other requests.
    void begin();
    /// The datagram that the relay is to hear until it confirms.
    const QByteArray &datagram() const { return m_second.isEmpty() ? m_first : m_second; }
    /// Whether one of them has this id.
    bool isOwn(quint16 messageId) const;
    /// Whether the relay has both.
    bool isHeld() const { return m_isHeld; }
    /// Whether the first one was answered: with nothing but a head, as is right, or with the same body as in the
    /// proof before.
    bool isAnswered() const { return m_isAnswered; }
    /// ms since begin().
    qint64 age() const { return m_sinceBegin.elapsed(); }
    /// How long the web server usually needs for one, in ms; until one has been answered, that is a guess.
    qint64 time() const;
    /// How long it needed for the last one, at most, as that may have waited behind others; 0 once more is known.
    qint64 lastTime() const;
    /// Somebody was not patient enough: the next time that is taken to be long.
    void expectSlow();

    /// True when the second one may go now.
    bool takeConfirmation(quint16 messageId);
    /// The next packet, of whatever answer; `gap`: ms since the relay's last sign. True: proven.
    bool takePacket(const datagram::ResponseHeader &header, const QByteArray &slice, qint64 gap);

private:
    static constexpr qint64 usualTime = 400;

    std::function<QByteArray(const QByteArray &http)> m_request;
    QByteArray m_first;  // datagrams
    QByteArray m_second; // empty until the relay has the first
    bool m_isHeld = false;
    bool m_isAnswered = false;
    QByteArray m_body;       // small web servers put one behind the head that was asked for, the same for every path
    QByteArray m_bodyBefore; // of the proof before, as one packet may come twice
    QElapsedTimer m_sinceBegin;
    QVector<qint64> m_times{usualTime}; // ms that the last ones took
    qint64 m_lastTime = 0;
};
