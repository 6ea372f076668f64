#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

/// A program's time: since some moment before its start, never set back.
using Moment = std::chrono::milliseconds;

/// How often something may happen: so many times at once, and again after each interval. In 8 bytes, and without a
/// clock of its own.
class Allowance
{
public:
    struct Rule {
        Moment interval;
        int atOnce;
    };

    /// Whether it may happen now; counts it if so.
    bool take(Moment now, const Rule &rule)
    {
        const Moment from = std::max(m_usedUpTo, now);
        if (from - now > rule.interval * (rule.atOnce - 1))
            return false;
        m_usedUpTo = from + rule.interval;
        return true;
    }

private:
    Moment m_usedUpTo{0};
};
