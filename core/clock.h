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
