#include "client/http/smallparts.h"

#include <QRegularExpression>

#include <algorithm>
#include <utility>

namespace http = boost::beast::http;

namespace
{
constexpr quint64 reserve = 128;   // bytes of what a part's head has and the answer's had not, Content-Range above all
constexpr quint64 usualHead = 500; // bytes, where that is not known
constexpr quint64 leastPart = 64;  // bytes; less is not worth its head

std::optional<quint64> number(const QString &digits)
{
    bool isNumber = false;
    const quint64 value = digits.toULongLong(&isNumber);
    return isNumber ? std::optional<quint64>(value) : std::nullopt;
}

bool mayHaveBody(http::status status)
{
    return status != http::status::no_content && status != http::status::not_modified;
}
} // namespace

std::optional<ContentRange> contentRange(const HttpResponseHead &head)
{
    static const QRegularExpression pattern(QStringLiteral("\\Abytes (\\d+)-(\\d+)/(\\d+|\\*)\\z"));
    const auto match = pattern.match(QString::fromLatin1(toByteArray(head[http::field::content_range])));
    if (!match.hasMatch())
        return std::nullopt;
    return ContentRange{match.captured(1).toULongLong(), match.captured(2).toULongLong(), match.captured(3)};
}

SmallParts::SmallParts(HttpRequest request, int limit)
    : m_request(std::move(request)), m_limit(static_cast<quint64>(limit)), m_partSize(m_limit - reserve - usualHead)
{
    takeRange();
}

/// Several ranges at once, which a web server may well answer with everything, are taken for no range.
void SmallParts::takeRange()
{
    static const QRegularExpression pattern(QStringLiteral("\\Abytes=(\\d*)-(\\d*)\\z"));
    const auto match = pattern.match(QString::fromLatin1(toByteArray(m_request[http::field::range])));
    const auto from = number(match.captured(1));
    const auto to = number(match.captured(2));
    m_isRangeWanted = from ? !to || *to >= *from : to && *to > 0;
    if (!m_isRangeWanted)
        return;
    m_first = from.value_or(0);
    (from ? m_last : m_suffix) = to;
}

/// HTTP/1.0 like every HEAD here, which no server answers with chunks.
HttpRequest SmallParts::question() const
{
    constexpr unsigned http10 = 10;
    HttpRequest question = m_request;
    question.method(http::verb::head);
    question.version(http10);
    question.erase(http::field::range);
    question.erase(http::field::if_range);
    return question;
}

QString SmallParts::takeAnswer(const HttpResponseHead &head, int headSize)
{
    const auto status = head.result();
    if (status == http::status::method_not_allowed || status == http::status::not_implemented) {
        m_isInParts = true; // to be tried
        m_isRangeWanted &= !m_suffix;
        return QString();
    }
    const auto taken = static_cast<quint64>(headSize) + reserve;
    m_partSize = m_limit - std::min(m_limit, taken);
    std::optional<quint64> length = number(QString::fromLatin1(toByteArray(head[http::field::content_length])));
    if (!mayHaveBody(status))
        length = 0;
    if (!length)
        return QStringLiteral("this network drops IP fragments, so that only short answers pass, and the web server "
                              "does not say how long this one is");
    if (*length <= m_partSize)
        return QString();
    if (m_partSize < leastPart)
        return QStringLiteral("this network drops IP fragments, so that only %1 bytes pass at once, which the fields "
                              "of the answer fill")
            .arg(m_limit);
    const bool hasRanges = toByteArray(head[http::field::accept_ranges]).toLower().contains("bytes");
    if (status != http::status::ok || !hasRanges)
        return QStringLiteral("this network drops IP fragments, so that only %1 bytes pass at once, and the web server "
                              "gives no ranges of these %2")
            .arg(m_partSize)
            .arg(*length);
    if (m_isRangeWanted && !isRangeOf(head)) {
        m_isRangeWanted = false;
        m_first = 0;
        m_last.reset();
    } else if (m_suffix) {
        m_first = *length - std::min(*length, *m_suffix);
    }
    m_isInParts = true;
    return QString();
}

/// Whether the client's range is meant for this version of the page (RFC 9110, 13.1.5).
bool SmallParts::isRangeOf(const HttpResponseHead &head) const
{
    const auto condition = m_request[http::field::if_range];
    return condition.empty() || condition == head[http::field::etag] || condition == head[http::field::last_modified];
}

HttpRequest SmallParts::first() const
{
    HttpRequest request = m_request;
    if (!m_isInParts)
        return request;
    const quint64 last = std::min(m_first + m_partSize - 1, m_last.value_or(m_first + m_partSize));
    request.set(http::field::range, QStringLiteral("bytes=%1-%2").arg(m_first).arg(last).toStdString());
    request.erase(http::field::if_range); // which may bring everything
    return request;
}

std::optional<quint64> SmallParts::completeHead(HttpResponseHead *head) const
{
    const auto range = contentRange(*head);
    const auto total = range ? number(range->total) : std::nullopt;
    if (!total || range->first != m_first || range->last >= *total)
        return std::nullopt;
    const quint64 last = std::min(m_last.value_or(*total - 1), *total - 1);
    if (m_isRangeWanted) {
        head->set(http::field::content_range,
                  QStringLiteral("bytes %1-%2/%3").arg(m_first).arg(last).arg(*total).toStdString());
    } else {
        head->result(http::status::ok);
        head->reason("");
        head->erase(http::field::content_range);
    }
    head->set(http::field::content_length, std::to_string(last - m_first + 1));
    return last - m_first + 1;
}
