#pragma once

#include <QDateTime>

#include <chrono>

/// True once `period` has run out since `since`: strictly more than the period has passed on the wall clock.
/// A null time stamp counts as long past.
inline bool hasElapsed(const QDateTime &since, std::chrono::milliseconds period)
{
    // Not by adding and comparing date-times: each step of that asks the system for its time zone, and several such
    // tests in every turn took more time than all the rest of an idle daemon.
    return since.isNull() || since.toMSecsSinceEpoch() + period.count() < QDateTime::currentMSecsSinceEpoch();
}

/// The same test for a walk over many time stamps: asks for the time at each of them, as the walk itself may take long,
/// but for its zone only when the time has changed.
class ElapsedTest
{
public:
    explicit ElapsedTest(std::chrono::milliseconds period) : m_period(period) {}
    bool operator()(const QDateTime &since)
    {
        if (since.isNull())
            return true;
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (m_now != now)
            m_latest = QDateTime::fromMSecsSinceEpoch(now - m_period.count());
        m_now = now;
        return since < m_latest;
    }

private:
    std::chrono::milliseconds m_period;
    qint64 m_now = -1;
    QDateTime m_latest; // in local time like the stamps: these compare as numbers
};
