// Nothing is shown where nobody looks: in a pipe, or for a moment.

#include "client/progressline.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds patience = 1s;
constexpr std::chrono::milliseconds spacing = 200ms;
constexpr char eraseLine[] = "\r\033[K";
} // namespace

ProgressLine::ProgressLine() : m_isTerminal(isatty(STDERR_FILENO) != 0) {}

void ProgressLine::show(const RelayClient::Traffic &traffic)
{
    if (!m_sinceStart.isValid())
        m_sinceStart.start();
    if (!m_isTerminal || !m_sinceStart.hasExpired(patience.count()) ||
        (m_isShown && !m_sinceShown.hasExpired(spacing.count())))
        return;
    m_isShown = true;
    m_sinceShown.start();
    const double kilobytes = static_cast<double>(traffic.bytes) / 1000;
    std::fprintf(stderr, "%s%.0f kB in %d packets, %d came again, %.0f kB/s", eraseLine, kilobytes, traffic.packets,
                 traffic.repeats, 1000 * kilobytes / static_cast<double>(m_sinceStart.elapsed()));
}

void ProgressLine::clear()
{
    if (m_isShown)
        std::fprintf(stderr, "%s", eraseLine);
    m_isShown = false;
    m_sinceStart.invalidate();
}
