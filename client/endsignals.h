#pragma once

#include <QSocketNotifier>

#include <csignal>
#include <functional>

/// Calls `leave` once when the process is to end: a relay that is not told good-bye would go on sending.
class EndSignals
{
public:
    explicit EndSignals(const std::function<void()> &leave);

private:
    static sigset_t endSignals();
    static int open();

    QSocketNotifier m_notifier;
};
