#pragma once

#include <QByteArray>
#include <QString>

/// Reads one HTTP/1.1 response (RFC 9112) from the bytes the relay delivers and takes its chunks apart.
class HttpReader
{
public:
    /// More bytes of the response; those behind its end are ignored.
    void feed(const QByteArray &bytes);

    /// The relay has delivered all that it had read from the web server at once. Unless more is to come, as only a
    /// chunked response allows, the response ends here.
    void endSeries();

    /// Status line and header fields with the empty line behind them, once they are whole; empty before.
    const QByteArray &header() const { return m_header; }

    /// The body's bytes since the last call, without the chunk framing.
    QByteArray takeBody();

    bool isComplete() const { return m_state == State::Complete; }

    /// Not empty: what makes this no complete response.
    const QString &error() const { return m_error; }

private:
    enum class State { Header, Body, ChunkSize, ChunkData, ChunkEnd, Trailer, Complete };

    bool takeHeader();
    bool takeChunkSize();
    bool takeData(qint64 *left, State next);
    bool takeLine(QByteArray *line);
    QByteArray field(const QByteArray &name) const;
    bool fail(const QString &error);

    State m_state = State::Header;
    QByteArray m_buffer; // not yet understood
    QByteArray m_header;
    QByteArray m_body;
    qint64 m_left = -1; // bytes of the body or of the chunk still to come; -1: the response does not say
    QString m_error;
};
