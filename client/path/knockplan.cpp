// Plans only: it has no sockets, and who calls it sends. How far a plan reaches is a matter of what routers do.

#include "client/path/knockplan.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace
{
/// One way to knock. Each of `sockets` knocks at the box's port; the first `sweepers` of them also at `reach` ports to
/// either side of it.
struct Step {
    int sockets;
    int sweepers;
    int reach;
    std::chrono::milliseconds length; // a burst of the box must fall into it
    std::chrono::milliseconds round;  // before it is all done again
};

// The gentlest first. A router of the box that draws its outside ports from a small range is met by a sweep. A router
// of the peer that draws from all ports is met by many sockets: each has another outside port, and the box's burst
// covers 800 of them. Two small ranges are met by several sweeps, each of which is a chance of its own. All is done
// more than once: a lost echo leaves the box content, and its bursts over, but us without a path.
constexpr Step steps[] = {
    {1, 0, 0, 3s, KnockPlan::gentleSpacing},
    {1, 1, 400, 8s, 2s},
    {256, 0, 0, 6s, 2s},
    {512, 0, 0, 8s, 3s},
    {512, 5, 400, 20s, 30s},
};
constexpr int stepCount = sizeof steps / sizeof *steps;
constexpr int lastingStep = 3; // goes on with this one and those behind it

constexpr double longestVolley = 50; // datagrams: what a socket's buffer surely takes
} // namespace

KnockPlan::KnockPlan(bool mayPunch, int datagramsPerMinute)
    : m_mayPunch(mayPunch), m_datagramsPerMinute(datagramsPerMinute)
{
}

void KnockPlan::begin()
{
    m_targets.clear();
    m_sinceAllowance.start();
    m_allowance = longestVolley;
    beginStep(0);
}

void KnockPlan::aimAt(const QList<Target> &targets)
{
    if (targets == m_targets)
        return;
    if (m_targets.isEmpty()) // until now nobody could have answered
        beginStep(0);
    m_targets = targets;
    m_round.clear();
    m_sinceRound.invalidate(); // at once
}

bool KnockPlan::isTarget(const QHostAddress &address) const
{
    return std::any_of(m_targets.cbegin(), m_targets.cend(), [&address](const Target &target) {
        return target.address.isEqual(address, QHostAddress::TolerantConversion);
    });
}

bool KnockPlan::isStepOver() const
{
    return m_mayPunch && m_round.isEmpty() && m_sinceStep.hasExpired(steps[m_step].length.count());
}

int KnockPlan::nextStep()
{
    beginStep(m_step + 1 < stepCount ? m_step + 1 : lastingStep);
    return m_sockets;
}

void KnockPlan::beginStep(int step)
{
    m_step = step;
    m_sockets = steps[step].sockets;
    m_round.clear();
    m_sinceStep.start();
    m_sinceRound.invalidate();
}

void KnockPlan::useSockets(int count)
{
    m_sockets = std::min(count, steps[m_step].sockets);
}

QString KnockPlan::text() const
{
    const Step &step = steps[m_step];
    const int datagrams = m_sockets + step.sweepers * 2 * step.reach;
    if (datagrams == 1)
        return QStringLiteral("knocking at the box's port");
    return QStringLiteral("knocking from %1 at %2 of the box's ports: %3 datagrams")
        .arg(m_sockets == 1 ? QStringLiteral("1 socket") : QStringLiteral("%1 sockets").arg(m_sockets))
        .arg(1 + 2 * step.reach)
        .arg(datagrams);
}

void KnockPlan::planRound()
{
    m_sinceRound.start();
    const Step &step = steps[m_step];
    for (int i = 0; i < m_sockets; i++)
        m_round.append({i, 0});
    for (int offset = 1; offset <= step.reach; offset++) { // the nearest first
        for (int i = 0; i < std::min(step.sweepers, m_sockets); i++)
            m_round << Planned{i, offset} << Planned{i, -offset};
    }
}

QList<Knock> KnockPlan::due()
{
    if (m_round.isEmpty() && (!m_sinceRound.isValid() || m_sinceRound.hasExpired(steps[m_step].round.count())))
        planRound();
    constexpr double minute = 60000; // ms
    m_allowance += m_datagramsPerMinute * static_cast<double>(m_sinceAllowance.restart()) / minute;
    m_allowance = std::min(m_allowance, longestVolley);
    QList<Knock> knocks;
    while (!m_round.isEmpty() && m_allowance >= 1) {
        const Planned next = m_round.takeFirst();
        for (const Target &target : qAsConst(m_targets)) {
            if (!target.isBehindRouter && (next.socket > 0 || next.offset != 0))
                continue; // one socket and one port are all that it takes there
            knocks.append({next.socket, target.address, static_cast<quint16>(target.port + next.offset)});
            m_allowance--;
        }
    }
    return knocks;
}
