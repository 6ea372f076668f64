#pragma once

#include "client/path/sides.h"
#include "client/path/turnchannel.h"
#include "client/path/way.h"
#include "introduction/messages.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>

#include <optional>

/// What there is to tell of a path: how the box is reached and since when, what both routers are, how long a datagram
/// takes there and back, and what was tried since the path was opened last.
class PathRecord : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    using Reach = introduction::OpenWay;
    enum class Phase { Idle, Opening, Open, Failed };
    struct Attempt {
        QString what;
        QString outcome;
        qint64 begin; // ms since the path began to open
        qint64 end;   // when that was known; less than 0: not yet
    };

    /// Notes what becomes of it.
    void watch(const Way *way);
    void watch(const TurnChannel *carrier);

    void begin();
    void attempt(const QString &what);
    void note(const QString &what, const QString &outcome);
    /// Nothing more is tried.
    void end();
    /// Datagrams reach the box directly, at this address.
    void open(const QHostAddress &host, quint16 port, bool hasPunched);
    /// A server carries them. What it sees of the box is such an address too.
    void openCarried(const QHostAddress &host, quint16 port, const QString &carrier);
    void fail(const QString &reason);

    /// Where another server sees the peer than the one that introduces.
    void setPeerSeen(const introduction::Address &address) { m_peerSeen = address; }

    /// A datagram has left that the box echoes.
    void knocked();
    void echoed();

    Phase phase() const { return m_phase; }
    Reach reach() const { return m_reach; }
    const QString &reason() const { return m_reason; } // of the failure
    const QDateTime &since() const { return m_since; }
    /// ms, so far or in all.
    qint64 openingTime() const { return m_phase == Phase::Opening ? m_sinceBegin.elapsed() : m_openingTime; }
    const std::optional<double> &roundTrip() const { return m_roundTrip; } // ms, smoothed
    const QList<Attempt> &attempts() const { return m_attempts; }
    /// With all that has been seen of them.
    Sides sides() const;

    /// How the box is reached, for a person to read.
    QString how() const;
    /// The same, after how long, and what the routers between are.
    QString summary() const;

private:
    Attempt *find(const QString &what);
    void settle(Reach reach, const QHostAddress &host, quint16 port);

    QList<const Way *> m_ways;
    Phase m_phase = Phase::Idle;
    Reach m_reach = Reach::Nowhere;
    QString m_reason;
    QString m_carrier;
    QDateTime m_since;
    introduction::Address m_box;
    qint64 m_openingTime = 0;
    QElapsedTimer m_sinceBegin;
    QList<Attempt> m_attempts;
    Sides m_sides;
    std::optional<introduction::Address> m_peerSeen;
    QElapsedTimer m_sinceKnock;
    int m_knocks = 0; // that no echo has followed
    std::optional<double> m_roundTrip;
};
