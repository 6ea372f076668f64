#pragma once

#include "client/relay/relayclient.h"

#include <QElapsedTimer>

/// How far a long transfer is, on one line of standard error where that is a terminal.
class ProgressLine
{
public:
    ProgressLine();

    /// Shows the line, a few times a second and not for what takes less than one.
    void show(const RelayClient::Traffic &traffic);
    /// Takes the line away; the next transfer begins.
    void clear();

private:
    bool m_isTerminal;
    bool m_isShown = false;
    QElapsedTimer m_sinceStart;
    QElapsedTimer m_sinceShown;
};
