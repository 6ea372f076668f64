#include "client/endsignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

EndSignals::EndSignals(const std::function<void()> &leave) : m_notifier(open(), QSocketNotifier::Read)
{
    QObject::connect(&m_notifier, &QSocketNotifier::activated, &m_notifier, [this, leave] {
        m_notifier.setEnabled(false);
        signalfd_siginfo info;
        const bool isRead = read(static_cast<int>(m_notifier.socket()), &info, sizeof info) == sizeof info;
        sigset_t ends = endSignals();
        if (isRead) // the next one ends the process at once
            sigprocmask(SIG_UNBLOCK, &ends, nullptr);
        leave();
    });
}

sigset_t EndSignals::endSignals()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    return ends;
}

int EndSignals::open()
{
    sigset_t ends = endSignals();
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}
