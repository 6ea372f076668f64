// The parser is Boost.Beast's: it takes bytes as they come from anywhere, needs no socket of its own, checks lengths
// and chunks strictly, and is maintained, unlike http_parser.

#include "client/http/exchange.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http/write.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <sstream>
#include <utility>

namespace http = boost::beast::http;

namespace
{
constexpr std::uint32_t longestHead = 64 * 1024;
constexpr int shortestEnd = 5;          // of chunks: the last one's "0" and two line ends
constexpr int longestLine = 128 * 1024; // or head; what is not understood before it
constexpr char helpfulSite[] = "an nginx before the web server helps, as in scripts/nginx-site.conf";
constexpr unsigned firstError = 400;
constexpr char answerBegin[] = "HTTP/1.";
constexpr int mostForeign = 5;     // answers that are not HTTP, before it is taken for what the web server says
constexpr int mostBarrenParts = 3; // a read may bring the header alone; so many in a row bring no more the next time

bool isEventStream(const HttpResponseHead &head)
{
    return toByteArray(head[http::field::content_type]).toLower().startsWith("text/event-stream");
}

bool mayRepeat(http::verb method) // RFC 9110, 9.2.2; RFC 4918, 9
{
    constexpr std::array idempotent{http::verb::get,     http::verb::head,  http::verb::put,      http::verb::delete_,
                                    http::verb::options, http::verb::trace, http::verb::propfind, http::verb::mkcol};
    return std::find(idempotent.begin(), idempotent.end(), method) != idempotent.end();
}
} // namespace

Exchange::Exchange(RelayClient *client) : QObject(client), m_client(client)
{
    connect(client, &RelayClient::received, this, &Exchange::take);
    connect(client, &RelayClient::seriesEnded, this, &Exchange::endSeries);
    connect(client, &RelayClient::failed, this, [this](RelayClient::Failure failure, const QString &reason) {
        constexpr unsigned tooLong = 413;
        constexpr unsigned badGateway = 502;
        constexpr unsigned gatewayTimeout = 504;
        if (!m_isRunning)
            return;
        if (failure == RelayClient::Failure::Fragments && m_request.method() == http::verb::get && !m_small)
            return startSmall();
        if (failure == RelayClient::Failure::CutShort && (m_isHeadTaken || !m_isFirst) && !m_isQuestion && hasRanges())
            return fetchRest(); // what is missing, perhaps over a new path
        if (failure == RelayClient::Failure::TooLong)
            fail(tooLong, reason);
        else
            fail(failure == RelayClient::Failure::NoAnswer ? gatewayTimeout : badGateway, reason);
    });
}

void Exchange::start(const HttpRequest &request)
{
    m_request = request;
    m_isFirst = true;
    m_isInChunks = m_isQuestion = m_isInParts = false;
    m_small.reset();
    m_length.reset();
    m_start = m_taken = m_takenBefore = 0;
    m_barrenParts = m_foreignAnswers = m_doubtfulAnswers = 0;
    m_body.clear();
    m_trafficBefore = {};
    send(request);
}

void Exchange::send(const HttpRequest &request)
{
    m_isRunning = m_isAwaited = true;
    m_asked = request;
    beginPart();
    std::ostringstream wire;
    wire << request;
    const bool isShort = m_small || request.method() != http::verb::get;
    m_client->send(QByteArray::fromStdString(wire.str()), {mayRepeat(request.method()), isShort, !m_isFirst});
}

void Exchange::beginPart()
{
    m_parser.emplace();
    m_parser->eager(true);
    m_parser->header_limit(longestHead);
    m_parser->body_limit(std::numeric_limits<std::uint64_t>::max()); // none at all, as "none" is the strictest
    m_parser->skip(m_request.method() == http::verb::head || m_isQuestion);
    m_isHeadTaken = false;
    m_buffer.clear();
}

void Exchange::resume()
{
    send(m_nextPart);
}

void Exchange::cancel()
{
    if (!m_isRunning)
        return; // the client may be another's
    rest();
    m_client->abandon();
}

/// What is asked next counts anew.
void Exchange::rest()
{
    m_trafficBefore = traffic();
    m_isRunning = false;
}

bool Exchange::isFlowing() const
{
    return m_isHeadTaken && (!m_isFirst || (m_parser->chunked() && m_client->isRelayWaiting()));
}

QByteArray Exchange::takeBody()
{
    return std::exchange(m_body, QByteArray());
}

RelayClient::Traffic Exchange::traffic() const
{
    const RelayClient::Traffic part = m_isRunning ? m_client->traffic() : RelayClient::Traffic();
    return {m_trafficBefore.bytes + part.bytes, m_trafficBefore.packets + part.packets,
            m_trafficBefore.repeats + part.repeats};
}

/// What came is not the answer.
void Exchange::askAgain()
{
    m_foreignAnswers++;
    if (m_isFirst)
        m_length.reset();
    rest();
    m_client->abandon();
    send(HttpRequest(m_asked));
}

void Exchange::take(const QByteArray &bytes)
{
    if (!m_isRunning)
        return;
    // Or it is the rest of another's chunks, which the relay was told to forget while they paused.
    if (m_isAwaited && !bytes.startsWith("HTTP/") && mayRepeat(m_asked.method()) && m_foreignAnswers < mostForeign)
        return askAgain();
    m_isAwaited = false;
    m_buffer.append(bytes);
    bool isMoving = true;
    while (isMoving && !m_buffer.isEmpty()) {
        // What ends chunks is given to the parser whole: a part of it given twice breaks its assertions.
        if (m_parser->is_header_done() && m_parser->chunked() && m_buffer.size() < shortestEnd)
            break;
        boost::system::error_code error;
        const auto used = static_cast<int>(
            m_parser->put(boost::asio::buffer(m_buffer.constData(), static_cast<size_t>(m_buffer.size())), error));
        m_buffer.remove(0, used);
        if (error && error != http::error::need_more)
            return fail(502,
                        QStringLiteral("the answer is no HTTP response: ") + QString::fromStdString(error.message()));
        if (m_parser->is_done() && m_parser->get().result_int() / 100 == 1) {
            const QByteArray rest = m_buffer; // an interim response: the real one follows
            beginPart();
            m_buffer = rest;
            continue;
        }
        isMoving = used > 0 && !m_parser->is_done();
    }
    if (m_buffer.size() > longestLine)
        return fail(502, QStringLiteral("the answer is no HTTP response: a line has no end"));
    if (isForeign())
        return refuseForeign(!m_isHeadTaken);
    if (!m_parser->is_header_done() || (!m_isHeadTaken && !takeHead()))
        return;
    takePartsBody();
    if (m_length && m_taken > *m_length)
        return fail(502, QStringLiteral("the web server gives more than the range that was asked for"));
    if (m_parser->is_done())
        endPart();
    else
        emit progressed();
}

/// Whether another answer is behind the head that came, or behind all of it. Then the first one is to what a nat-peer
/// asked to prove, and had the relay forget too early, and the second one is the own. A page may begin like an answer,
/// and is believed the second time, where it is as long as it says.
bool Exchange::isForeign() const
{
    const QByteArray more = m_parser->is_done() ? m_buffer.trimmed() : QByteArray(); // some add a line end to chunks
    std::string behindHead;
    if (!m_isHeadTaken)
        behindHead = boost::beast::buffers_to_string(m_parser->get().body().data()) + more.toStdString();
    const bool isBehindHead = behindHead.compare(0, sizeof answerBegin - 1, answerBegin) == 0;
    return more.startsWith(answerBegin) ||
           (isBehindHead && (!more.isEmpty() || (m_doubtfulAnswers == 0 && mayRepeat(m_asked.method()))));
}

/// `isNothingOut`: the client has got none of it.
void Exchange::refuseForeign(bool isNothingOut)
{
    m_client->expectSlow();
    m_doubtfulAnswers++;
    if (isNothingOut && mayRepeat(m_asked.method()) && m_foreignAnswers < mostForeign)
        askAgain();
    else
        fail(502, QStringLiteral("more came than the answer to this request, and perhaps that is another's"));
}

bool Exchange::takeHead()
{
    m_isHeadTaken = true;
    const HttpResponseHead &part = m_parser->get().base();
    if (m_isQuestion)
        return true;
    if (!m_isFirst) {
        if (isContinued(part))
            return true;
        if (part.result_int() >= firstError && m_doubtfulAnswers == 0) {
            refuseForeign(true);
            return false;
        }
        fail(502, QStringLiteral("the box delivered %1 of %2 bytes, and its web server gives no ranges of the rest; %3")
                      .arg(m_taken)
                      .arg(*m_length)
                      .arg(QLatin1String(helpfulSite)));
        return false;
    }
    return takeFirstHead(part);
}

bool Exchange::takeFirstHead(const HttpResponseHead &part)
{
    m_head = part;
    m_isInChunks = m_parser->chunked();
    if (const auto length = m_parser->content_length())
        m_length = *length;
    if (isEventStream(part) && !m_length && !m_parser->is_done()) {
        fail(501, QLatin1String(noStreams)); // its end may be far, and what a page waits for is behind it
        return false;
    }
    if (part.result() != http::status::partial_content)
        return true;
    if (m_asked[http::field::range].empty()) {
        fail(502, QStringLiteral("the web server gives a part, and was asked for all"));
        return false;
    }
    if (const auto range = contentRange(part))
        m_start = range->first;
    m_isInParts = m_small && m_small->isInParts();
    if (!m_isInParts)
        return true;
    m_length = m_small->completeHead(&m_head);
    if (!m_length)
        fail(502, QStringLiteral("the web server gives another range than the one that was asked for"));
    return m_length.has_value();
}

/// Whether this is the range that was asked for, of the same version of the same thing.
bool Exchange::isContinued(const HttpResponseHead &part) const
{
    const auto range = contentRange(part);
    const auto before = contentRange(m_head);
    const QString total = before ? before->total : QString::number(*m_length);
    const auto isSame = [&](http::field field) { return part[field] == m_head[field]; };
    return part.result() == http::status::partial_content && range && range->total == total &&
           range->first == m_start + m_taken && range->last < m_start + *m_length && isSame(http::field::etag) &&
           isSame(http::field::last_modified) && isSame(http::field::content_encoding);
}

void Exchange::takePartsBody()
{
    auto &body = m_parser->get().body();
    m_body += QByteArray::fromStdString(boost::beast::buffers_to_string(body.data()));
    m_taken += body.size();
    body.consume(body.size());
}

void Exchange::endSeries()
{
    if (!m_isRunning || m_client->isRelayWaiting())
        return;
    const bool isBarren = m_isFirst && m_taken == 0 && !hasRanges() && !m_parser->chunked();
    if (isBarren && mayRepeat(m_asked.method()) && m_doubtfulAnswers == 0)
        return refuseForeign(true); // the head, perhaps, or the relay's first read came too early
    if (!m_parser->is_header_done())
        fail(502, QStringLiteral("the response ends within its header"));
    else if (m_parser->chunked())
        fail(502, QStringLiteral("the response is cut short: the relay follows chunks only under \"%1\"")
                      .arg(QLatin1String(ChunkPace::chunkedField)));
    else if (m_parser->need_eof())
        fail(502, QStringLiteral("the response does not say how long it is: %1 bytes came, and more may be missing; %2")
                      .arg(m_taken)
                      .arg(QLatin1String(helpfulSite)));
    else
        fetchRest();
}

void Exchange::endPart()
{
    if (m_isQuestion)
        return endQuestion();
    if (m_isInParts && m_taken < *m_length)
        return fetchRest(); // or the web server gave less than the range that was asked for
    rest();
    m_client->finish();
    emit finished();
}

/// The answer to the present part was lost, or would be, as it is longer than what this network lets pass.
void Exchange::startSmall()
{
    rest();
    if (!m_client->areFragmentsDropped()) // they passed before
        return send(m_isFirst ? m_request : m_nextPart);
    if (m_isFirst) // what is compressed on the fly has neither length nor ranges
        m_request.set(http::field::accept_encoding, "identity");
    m_small.emplace(m_request, Fragments::longestResponse);
    if (!m_isFirst)
        return fetchRest();
    m_isQuestion = true;
    send(m_small->question());
}

void Exchange::endQuestion()
{
    const QString refusal = m_small->takeAnswer(m_parser->get().base(), static_cast<int>(m_client->traffic().bytes));
    m_isQuestion = false;
    rest();
    m_client->finish();
    if (refusal.isEmpty())
        send(m_small->first());
    else
        emit failed(502, refusal);
}

/// Whether the web server may be asked for the rest.
bool Exchange::hasRanges() const
{
    return m_request.method() == http::verb::get && m_length &&
           (m_head.result() == http::status::ok ||
            (m_head.result() == http::status::partial_content && contentRange(m_head)));
}

void Exchange::fetchRest()
{
    const bool isBarren = m_taken == m_takenBefore;
    m_barrenParts = isBarren ? m_barrenParts + 1 : 0;
    m_takenBefore = m_taken;
    if (!hasRanges() || m_barrenParts > mostBarrenParts)
        return fail(502, QStringLiteral("the box delivered %1 of %2 bytes, and there is no way to ask for the rest; %3")
                             .arg(m_taken)
                             .arg(m_length.value_or(0))
                             .arg(QLatin1String(helpfulSite)));

    const quint64 next = m_start + m_taken;
    const quint64 end = m_start + *m_length;
    const quint64 most = m_small ? m_small->partSize() : *m_length;
    m_nextPart = m_request;
    for (const auto field : {http::field::if_match, http::field::if_none_match, http::field::if_modified_since,
                             http::field::if_unmodified_since, http::field::if_range})
        m_nextPart.erase(field);
    m_nextPart.set(http::field::range,
                   QStringLiteral("bytes=%1-%2").arg(next).arg(std::min(end, next + most) - 1).toStdString());
    const auto tag = m_head[http::field::etag];
    if (m_small) { // nothing may bring everything
    } else if (!tag.empty() && !tag.starts_with("W/")) {
        m_nextPart.set(http::field::if_range, tag);
    } else if (!m_head[http::field::last_modified].empty()) {
        m_nextPart.set(http::field::if_range, m_head[http::field::last_modified]);
    }
    m_isFirst = false;
    m_isInParts = true;
    rest();
    m_client->finish();
    emit paused();
}

void Exchange::fail(unsigned status, const QString &reason)
{
    cancel();
    emit failed(status, reason);
}
