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

/// The same test for a walk over many time stamps: asks for the time and its zone at the first of them, not at each.
class ElapsedTest
{
public:
    explicit ElapsedTest(std::chrono::milliseconds period) : m_period(period) {}
    bool operator()(const QDateTime &since)
    {
        if (m_latest.isNull())
            m_latest = QDateTime::fromMSecsSinceEpoch(QDateTime::currentMSecsSinceEpoch() - m_period.count());
        return since.isNull() || since < m_latest;
    }
    /// For a walk that has stopped on its way: the next test asks again.
    void askAgain() { m_latest = QDateTime(); }

private:
    std::chrono::milliseconds m_period;
    QDateTime m_latest; // in local time like the stamps: these compare as numbers
};
