#pragma once

#include <QDateTime>

#include <chrono>

/// True once `period` has run out since `since`: strictly more than the period has passed on the wall clock.
/// A null time stamp counts as long past.
inline bool hasElapsed(const QDateTime &since, std::chrono::milliseconds period)
{
    return since.isNull() || since.addMSecs(period.count()) < QDateTime::currentDateTime();
}
