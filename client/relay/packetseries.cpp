#include "client/relay/packetseries.h"

void PacketSeries::clear()
{
    m_last = {};
    m_taken = 0;
}

/// The relay keeps one packet in flight, so what is new is next.
QString PacketSeries::take(const datagram::ResponseHeader &header, int bytes)
{
    const bool isNewRead = m_last.count == 0 || !isUnderWay();
    const bool isNext = isNewRead ? header.index == 0
                                  : header.index == m_last.index + 1 && header.count == m_last.count &&
                                        header.totalLength == m_last.totalLength;
    if (!isNext)
        return QStringLiteral("the response is cut short, packet %1 of %2 came too early")
            .arg(header.index)
            .arg(header.count);
    m_taken = (isNewRead ? 0 : m_taken) + static_cast<quint32>(bytes);
    m_last = header;
    return QString();
}

QString PacketSeries::shortage() const
{
    return m_taken == m_last.totalLength
               ? QString()
               : QStringLiteral("the response is cut short, %1 of %2 bytes came").arg(m_taken).arg(m_last.totalLength);
}
