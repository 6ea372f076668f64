#pragma once

#include "client/http/message.h"
#include "client/http/smallparts.h"
#include "client/relay/relayclient.h"

#include <boost/beast/http/dynamic_body.hpp>
#include <boost/beast/http/parser.hpp>

#include <QByteArray>
#include <QObject>
#include <QString>

#include <optional>

inline constexpr char noStreams[] =
    "WebSocket and event streams do not pass: the way to the box carries whole responses, "
    "one at a time";

/// One HTTP request (RFC 9110, RFC 9112) carried to the box's web server, and its whole response. The relay delivers of
/// a response without chunks only what the web server had written when it looked; the rest is fetched in ranges,
/// between which others may be served; where the network drops IP fragments, all of it is. Several may live at one
/// client, of which one at a time is at work.
class Exchange : public QObject
{
    Q_OBJECT

public:
    explicit Exchange(RelayClient *client);

    /// The request, with its target in origin form and without hop-by-hop fields.
    void start(const HttpRequest &request);
    /// Ends without another signal.
    void cancel();
    /// Goes on after a pause.
    void resume();

    const HttpRequest &request() const { return m_request; }
    /// Status and fields of the response; valid once a body or the end has been told.
    const HttpResponseHead &head() const { return m_head; }
    /// Length of the body, where the response says it.
    std::optional<quint64> length() const { return m_length; }
    /// The body's bytes since the last call, without the chunk framing.
    QByteArray takeBody();
    /// Whether the rest will come too, as far as can be told: the body may be passed on before it is whole.
    bool isFlowing() const;
    /// Whether it holds the relay from its first byte to its last.
    bool isInChunks() const { return m_isInChunks; }
    /// What the whole exchange has taken so far.
    RelayClient::Traffic traffic() const;

signals:
    void progressed();
    /// Part of the body is there. The client is free until resume().
    void paused();
    void finished();
    /// `status`: what a gateway answers then, 501 for a stream, 502 or 504.
    void failed(unsigned status, const QString &reason);

private:
    using Parser = boost::beast::http::response_parser<boost::beast::http::dynamic_body>;

    void send(const HttpRequest &request);
    void beginPart();
    void askAgain();
    void take(const QByteArray &bytes);
    bool isForeign() const;
    void refuseForeign(bool isNothingOut);
    bool takeHead();
    bool takeFirstHead(const HttpResponseHead &part);
    bool isContinued(const HttpResponseHead &part) const;
    void takePartsBody();
    void endSeries();
    void endPart();
    void startSmall();
    void endQuestion();
    bool hasRanges() const;
    void fetchRest();
    void fail(unsigned status, const QString &reason);
    void rest();

    RelayClient *m_client;
    HttpRequest m_request;
    HttpRequest m_nextPart;
    std::optional<Parser> m_parser;    // of the present part
    QByteArray m_buffer;               // not yet understood
    bool m_isHeadTaken = false;        // of the present part
    bool m_isFirst = true;             // part
    std::optional<SmallParts> m_small; // where only short responses come through
    bool m_isQuestion = false;         // the present part is the answer to its question
    bool m_isInParts = false;          // more follow after the present one, if that is not the last
    HttpResponseHead m_head;
    std::optional<quint64> m_length;
    quint64 m_start = 0;       // of the body within what it is a part of
    quint64 m_taken = 0;       // bytes of the body
    quint64 m_takenBefore = 0; // by the parts before this one
    HttpRequest m_asked;       // last
    bool m_isAwaited = false;  // nothing of the answer to that has come
    int m_foreignAnswers = 0;
    int m_doubtfulAnswers = 0; // of these, what may have been the own: it is believed the second time
    int m_barrenParts = 0;
    QByteArray m_body; // not yet taken
    RelayClient::Traffic m_trafficBefore;
    bool m_isInChunks = false;
    bool m_isRunning = false;
};
