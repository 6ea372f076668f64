// Understands as much of the response as has arrived, state by state.

#include "tools/httpreader.h"

#include <QList>

#include <algorithm>
#include <utility>

namespace
{
constexpr int longestLine = 64 * 1024; // of the header, or of a chunk's size: beyond this it is no HTTP
} // namespace

void HttpReader::feed(const QByteArray &bytes)
{
    m_buffer.append(bytes);
    bool understood = m_error.isEmpty();
    while (understood) {
        QByteArray line;
        switch (m_state) {
        case State::Header:
            understood = takeHeader();
            break;
        case State::Body:
            understood = takeData(&m_left, State::Complete);
            break;
        case State::ChunkSize:
            understood = takeChunkSize();
            break;
        case State::ChunkData:
            understood = takeData(&m_left, State::ChunkEnd);
            break;
        case State::ChunkEnd:
            understood = takeLine(&line) && (line.isEmpty() || fail(QStringLiteral("a chunk is longer than it says")));
            if (understood)
                m_state = State::ChunkSize;
            break;
        case State::Trailer:
            understood = takeLine(&line);
            if (understood && line.isEmpty())
                m_state = State::Complete;
            break;
        case State::Complete:
            m_buffer.clear();
            return;
        }
    }
}

void HttpReader::endSeries()
{
    // The relay waits for more as soon as it has seen this field, in these letters, be the header whole or not.
    const bool isMoreToCome = m_state == State::Header && m_buffer.contains("Transfer-Encoding: chunked");
    if (isMoreToCome)
        return;
    if (m_state == State::Header)
        fail(QStringLiteral("the response ends within its header"));
    else if (m_state == State::Body && m_left > 0)
        fail(QStringLiteral("the response is cut short, %1 bytes are missing").arg(m_left));
    else if (m_state == State::Body)
        m_state = State::Complete;
}

QByteArray HttpReader::takeBody()
{
    return std::exchange(m_body, QByteArray());
}

bool HttpReader::takeHeader()
{
    static const QByteArray end("\r\n\r\n");
    const int length = m_buffer.indexOf(end);
    if (length < 0)
        return m_buffer.size() > longestLine && fail(QStringLiteral("the answer is no HTTP response"));
    m_header = m_buffer.left(length + end.size());
    m_buffer.remove(0, m_header.size());

    const QByteArray status = m_header.mid(m_header.indexOf(' ') + 1, 3);
    if (!m_header.startsWith("HTTP/1."))
        return fail(QStringLiteral("the answer is no HTTP response"));
    if (status.startsWith('1')) // an interim response: the real one follows
        return true;
    if (status == "204" || status == "304")
        m_state = State::Complete;
    else if (field("transfer-encoding").toLower() == "chunked")
        m_state = State::ChunkSize;
    else {
        bool isNumber = false;
        const qint64 length64 = field("content-length").toLongLong(&isNumber);
        m_left = isNumber ? length64 : -1;
        m_state = State::Body;
    }
    return true;
}

bool HttpReader::takeChunkSize()
{
    QByteArray line;
    if (!takeLine(&line))
        return false;
    bool isNumber = false;
    m_left = line.split(';').constFirst().trimmed().toLongLong(&isNumber, 16);
    if (!isNumber || m_left < 0)
        return fail(QStringLiteral("a chunk of the response has no size"));
    m_state = m_left == 0 ? State::Trailer : State::ChunkData;
    return true;
}

bool HttpReader::takeData(qint64 *left, State next)
{
    const int length = *left < 0 ? m_buffer.size() : static_cast<int>(std::min<qint64>(*left, m_buffer.size()));
    m_body.append(m_buffer.left(length));
    m_buffer.remove(0, length);
    if (*left < 0)
        return false;
    *left -= length;
    if (*left > 0)
        return false;
    m_state = next;
    return true;
}

bool HttpReader::takeLine(QByteArray *line)
{
    const int length = m_buffer.indexOf("\r\n");
    if (length < 0)
        return m_buffer.size() > longestLine && fail(QStringLiteral("a chunk of the response has no size"));
    *line = m_buffer.left(length);
    m_buffer.remove(0, length + 2);
    return true;
}

/// Value of the header field of this lower-case name; empty when there is none.
QByteArray HttpReader::field(const QByteArray &name) const
{
    const QList<QByteArray> lines = m_header.split('\n');
    for (const QByteArray &line : lines) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).toLower() == name)
            return line.mid(colon + 1).trimmed();
    }
    return QByteArray();
}

bool HttpReader::fail(const QString &error)
{
    m_error = error;
    return false;
}
