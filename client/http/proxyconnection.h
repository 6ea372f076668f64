#pragma once

#include "client/http/exchange.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

#include <optional>

/// One client's connection to the proxy: takes requests apart, one at a time, and writes responses.
class ProxyConnection : public QObject
{
    Q_OBJECT

public:
    /// Owns the socket, and goes when it closes.
    ProxyConnection(QTcpSocket *socket, QObject *parent);

    /// The request as it is to reach the box's web server.
    const HttpRequest &request() const { return m_request; }

    /// Writes status line and fields; a body of unknown length goes out in chunks.
    void sendHead(const HttpResponseHead &head, std::optional<quint64> length);
    void sendBody(const QByteArray &bytes);
    /// The response is whole: the next request is read.
    void finish();
    /// Answers with a page of the proxy's own.
    void answer(unsigned status, const QByteArray &type, const QByteArray &body);
    /// Answers with an error of the proxy's own or, when the head of a response has gone out, breaks the connection, so
    /// that the client takes no short body for a whole one.
    void fail(unsigned status, const QString &reason);
    bool isHeadSent() const { return m_isHeadSent; }
    /// Whether the client has stopped reading long ago.
    bool isStuffed() const;

signals:
    void requested();
    void closed();

private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void beginRequest();
    void read();
    void written();
    void refuse(const boost::system::error_code &error);
    void takeRequest();

    QTcpSocket *m_socket;
    QTimer m_idle;
    std::optional<Parser> m_parser;
    QByteArray m_buffer; // not yet understood
    HttpRequest m_request;
    unsigned m_version = 11; // of the client's HTTP
    bool m_isReading = true;
    bool m_isDraining = false;  // nothing more is answered
    bool m_isContinued = false; // the client has been told to send its body
    bool m_isHeadSent = false;
    bool m_isChunked = false; // the response
    bool m_isKept = true;     // the connection, after the response
};
