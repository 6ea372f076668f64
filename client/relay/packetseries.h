#pragma once

#include "protocol/datagram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QString>

/// The packets of one response: a series for each read that the relay has made of it, one packet in flight.
class PacketSeries
{
public:
    PacketSeries() { m_clock.start(); }

    /// Another response begins.
    void clear();
    /// Whether this packet has been taken already: the relay sends one again until its confirmation arrives.
    bool isRepeated(const QByteArray &packet);
    /// Takes the next one, with so many bytes of the response. Empty text, or why it cannot be the next one.
    QString take(const datagram::ResponseHeader &header, int bytes);
    /// Whether more of the present read is to come.
    bool isUnderWay() const { return m_last.index + 1 != m_last.count; }
    /// Empty text, or what is wrong with a read of which nothing more is to come.
    QString shortage() const;

private:
    datagram::ResponseHeader m_last = {}; // of the packet taken last
    quint32 m_taken = 0;                  // bytes of its read
    QElapsedTimer m_clock;
    QHash<QByteArray, qint64> m_seen; // packets taken, and when they last came
};
