// The second one can only be answered when the first has been taken off the relay's queue and its link closed, whatever
// answer the first one got: what comes then is one's own.

#include "client/relay/proof.h"

#include <QRandomGenerator>

#include <algorithm>
#include <utility>

namespace
{
constexpr qint64 longestTime = 2000; // ms; when the first one was answered, it may have waited behind others

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
    if (!isOfSecond && !isOf(header.messageId, m_first))
        return false;
    const auto end = slice.indexOf("\r\n\r\n");
    const QByteArray body = slice.mid(end + 4);
    const bool isWhole = header.count == 1 && slice.startsWith("HTTP/1.") && end >= 0;
    const bool isHead = isWhole && (body.isEmpty() || body == m_bodyBefore);
    if (isWhole)
        m_body = body;
    if (isOfSecond)
        return true;
    if (isHead && !m_isAnswered) // the relay may send it again
        m_time = std::min({m_time.value_or(longestTime), gap, m_sinceBegin.elapsed()});
    m_isAnswered = isHead;
    return false;
}
