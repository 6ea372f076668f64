#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>

#include <chrono>

/// Which of the relay's packets have come before. It sends one again until a confirmation of it arrives; but a
/// confirmation counts for the oldest packet of that place and checksum which it has sent within a minute, so that of
/// two equal reads of one response the second is never taken for confirmed: that one it sends for 25 s, and then drops
/// all that it has for this peer.
class Repeats
{
public:
    Repeats() { m_clock.start(); }

    /// The next packet; it is confirmed each time. True: it came before.
    bool take(const QByteArray &packet);
    /// Whether the last one has come again so often and for so long that it will not stop.
    bool areEndless(int copies, std::chrono::milliseconds least) const;
    /// The relay has dropped its packets.
    void forget();

private:
    QElapsedTimer m_clock;
    QHash<QByteArray, qint64> m_seen; // when it came last, in ms
    int m_copies = 0;                 // since the last new one
    QElapsedTimer m_sinceFirst;       // of these
};
