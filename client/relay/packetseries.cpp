#include "client/relay/packetseries.h"

#include <QCryptographicHash>

#include <chrono>
#include <iterator>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds packetMemory = 60s; // as long as the relay itself tells a packet from its like
constexpr int mostSeen = 10000;                         // more than the relay sends in that time
} // namespace

void PacketSeries::clear()
{
    m_last = {};
    m_taken = 0;
    m_seen.clear();
}

bool PacketSeries::isRepeated(const QByteArray &packet)
{
    // Without kind and ids, of which the socket id may change between two sends.
    const QByteArray key = QCryptographicHash::hash(packet.mid(datagram::socketIdOffset + 2), QCryptographicHash::Sha1);
    const auto seen = m_seen.constFind(key);
    const qint64 now = m_clock.elapsed();
    const auto isOld = [now](qint64 time) { return now - time >= packetMemory.count(); };
    const bool isKnown = seen != m_seen.constEnd() && !isOld(*seen);
    m_seen.insert(key, now);
    if (m_seen.size() > mostSeen) { // a response without end
        for (auto entry = m_seen.begin(); entry != m_seen.end();)
            entry = isOld(*entry) ? m_seen.erase(entry) : std::next(entry);
    }
    return isKnown;
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
