#pragma once

#include "client/path/target.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QString>

#include <chrono>

/// One datagram towards the box.
struct Knock {
    int socket; // its place among those that the path has
    QHostAddress address;
    quint16 port;
};

/// Which sockets knock at which of the box's ports, and when. Step after step: from one socket at one port to many of
/// both, for routers that change ports (address- and port-dependent mapping, RFC 4787).
class KnockPlan
{
public:
    static constexpr std::chrono::milliseconds gentleSpacing{500}; // between two knocks of one socket at one port

    /// `mayPunch`: goes on to more sockets and ports. At most `datagramsPerMinute` fall due.
    KnockPlan(bool mayPunch, int datagramsPerMinute);

    /// The first step, with nowhere to knock yet.
    void begin();

    /// The box should be at one of these, no longer where it was said to be before.
    void aimAt(const QList<Target> &targets);
    bool hasTarget() const { return !m_targets.isEmpty(); }
    bool isTarget(const QHostAddress &address) const;

    /// Whether the box has had its time to answer to the present step, and there is another one.
    bool isStepOver() const;
    /// Goes on; gives the number of sockets that the new step is for. It makes do with what useSockets() says.
    int nextStep();
    void useSockets(int count);
    /// Whether more than one socket at one port has been needed.
    bool hasPunched() const { return m_step > 0; }
    /// The present step, for a person to read.
    QString text() const;

    /// The knocks that are due since the last call.
    QList<Knock> due();

private:
    struct Planned {
        int socket;
        int offset; // from the box's port
    };

    void beginStep(int step);
    void planRound();

    const bool m_mayPunch;
    const int m_datagramsPerMinute;
    QList<Target> m_targets;
    int m_step = 0;
    int m_sockets = 1;
    QElapsedTimer m_sinceStep;
    QElapsedTimer m_sinceRound;
    QList<Planned> m_round; // what is left of the one that is under way
    double m_allowance = 0; // datagrams that may be sent now
    QElapsedTimer m_sinceAllowance;
};
