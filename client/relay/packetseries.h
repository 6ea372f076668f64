#pragma once

#include "protocol/datagram.h"

#include <QString>

/// The packets of one response: a series for each read that the relay has made of it, one packet in flight.
class PacketSeries
{
public:
    /// Another response begins.
    void clear();
    /// Takes the next one, with so many bytes of the response. Empty text, or why it cannot be the next one.
    QString take(const datagram::ResponseHeader &header, int bytes);
    /// Whether more of the present read is to come.
    bool isUnderWay() const { return m_last.index + 1 != m_last.count; }
    /// Empty text, or what is wrong with a read of which nothing more is to come.
    QString shortage() const;

private:
    datagram::ResponseHeader m_last = {}; // of the packet taken last
    quint32 m_taken = 0;                  // bytes of its read
};
