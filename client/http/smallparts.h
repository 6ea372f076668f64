#pragma once

#include "client/http/message.h"

#include <QString>

#include <optional>

/// Where a partial response lies within the whole (RFC 9110, 14.4).
struct ContentRange {
    quint64 first = 0;
    quint64 last = 0;
    QString total; // may be unknown: *
};
std::optional<ContentRange> contentRange(const HttpResponseHead &head);

/// How a page is fetched where only short responses come through: a question goes ahead, as a long response would be
/// lost and hold everybody up; then the page is asked for in parts, unless it is short.
class SmallParts
{
public:
    /// A GET. `limit`: bytes of a whole response.
    SmallParts(HttpRequest request, int limit);

    /// How long is it, and does it come in parts?
    HttpRequest question() const;
    /// The answer to that, its head so many bytes long. Returns why the page cannot be fetched, or empty text.
    QString takeAnswer(const HttpResponseHead &head, int headSize);
    /// What is asked then: all of a short page, or the first part.
    HttpRequest first() const;
    bool isInParts() const { return m_isInParts; }
    /// Bytes of the body in each part.
    quint64 partSize() const { return m_partSize; }
    /// Makes the head of the first part that of all that the client has asked for. Returns the length of that; nothing
    /// when it is another part, or nobody knows of how much.
    std::optional<quint64> completeHead(HttpResponseHead *head) const;

private:
    void takeRange();
    bool isRangeOf(const HttpResponseHead &head) const;

    const HttpRequest m_request;
    const quint64 m_limit;
    bool m_isInParts = false;
    bool m_isRangeWanted = false; // by the client
    quint64 m_first = 0;
    std::optional<quint64> m_last;
    std::optional<quint64> m_suffix; // so many bytes at the end are wanted
    quint64 m_partSize;
};
