// The second one can only be answered when the first has been taken off the relay's queue and its link closed, whatever
// answer the first one got: what comes then is one's own.

#include "client/relay/proof.h"

#include <QRandomGenerator>

#include <algorithm>
#include <utility>

namespace
{
constexpr qint64 longestTime = 1500; // what took longer has waited behind others, most likely
constexpr int mostTimes = 7;
constexpr int fewTimes = 4;
} // namespace

QByteArray harmlessRequest(const QByteArray &fields)
{
    const QByteArray path = QByteArray::number(QRandomGenerator::global()->generate64(), 16);
    return "HEAD /nat-peer-" + path +
           " HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\nUser-Agent: nat-peer\r\n" + fields + "\r\n";
}

bool isOf(quint16 messageId, const QByteArray &request)
{
    return !request.isEmpty() && datagram::readInteger<quint16>(request, datagram::messageIdOffset) == messageId;
}

Proof::Proof(std::function<QByteArray(const QByteArray &http)> request) : m_request(std::move(request)) {}

void Proof::begin()
{
    m_first = m_request(harmlessRequest());
    m_second.clear();
    m_bodyBefore = m_body;
    m_isHeld = m_isAnswered = false;
    m_sinceBegin.start();
}

bool Proof::isOwn(quint16 messageId) const
{
    return isOf(messageId, m_first) || isOf(messageId, m_second);
}

bool Proof::takeConfirmation(quint16 messageId)
{
    m_isHeld |= isOf(messageId, m_second);
    if (!m_second.isEmpty() || !isOf(messageId, m_first))
        return false;
    m_second = m_request(harmlessRequest());
    return true;
}

bool Proof::takePacket(const datagram::ResponseHeader &header, const QByteArray &slice, qint64 gap)
{
    const bool isOfSecond = isOf(header.messageId, m_second);
    if (!isOwn(header.messageId))
        return false;
    const auto end = slice.indexOf("\r\n\r\n");
    const QByteArray body = slice.mid(end + 4);
    const bool isWhole = header.count == 1 && slice.startsWith("HTTP/1.") && end >= 0;
    const bool isHead = isWhole && (body.isEmpty() || body == m_bodyBefore);
    if (isWhole)
        m_body = body;
    const bool isTimed = isOfSecond ? m_isAnswered : isHead && !m_isAnswered; // the relay may send it again
    if (isTimed) {
        m_lastTime = std::min({longestTime, gap, m_sinceBegin.elapsed()});
        m_times.append(m_lastTime);
    }
    if (m_times.size() > mostTimes)
        m_times.removeFirst();
    m_isAnswered = isHead;
    return isOfSecond;
}

qint64 Proof::lastTime() const
{
    return m_times.size() < fewTimes ? m_lastTime : 0;
}

void Proof::expectSlow()
{
    m_times.fill(longestTime, mostTimes);
}

/// One of the least: most have waited behind others where there are any, and few were on their way together.
qint64 Proof::time() const
{
    QVector<qint64> times = m_times;
    std::sort(times.begin(), times.end());
    return times.at(times.size() / 4);
}
