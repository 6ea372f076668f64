// HTTP between the proxy and its client: requests are taken apart and made fit for the box's web server, responses put
// together; what went wrong is said in a response of the proxy's own.

#include "client/http/proxyconnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/write.hpp>

#include <QUrl>

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <sstream>

namespace http = boost::beast::http;
using namespace std::chrono_literals;

namespace
{
constexpr unsigned http11 = 11;
constexpr auto idleLimit = 60s;               // a client that does not finish its request, or does not read
constexpr auto drainLimit = 2s;               // one whose request was refused, and that still sends it
constexpr int unreadLimit = 64 * 1024 * 1024; // bytes that a client does not read
constexpr int readAhead = 128 * 1024;         // bytes that a client may send before it is its turn
constexpr std::uint32_t longestHead = 32768;  // bytes; a request must fit one datagram anyway

/// What concerns one connection only and is not passed on (RFC 9110, 7.6.1).
void removeHopByHop(http::fields *fields)
{
    QByteArray named;
    const auto connection = fields->equal_range(http::field::connection);
    std::for_each(connection.first, connection.second,
                  [&named](const auto &field) { named += toByteArray(field.value()) + ','; });
    const QList<QByteArray> names = named.split(',');
    for (const QByteArray &name : names)
        fields->erase(name.trimmed().toStdString());
    for (const char *name :
         {"Connection", "Keep-Alive", "Proxy-Connection", "TE", "Trailer", "Transfer-Encoding", "Upgrade"})
        fields->erase(name);
}

/// Whether the client wants a connection that stays open: the relay carries whole responses, one at a time.
bool isForStream(const HttpRequest &request)
{
    const bool isWebSocket = toByteArray(request[http::field::upgrade]).toLower().contains("websocket");
    const QByteArray accepted = toByteArray(request[http::field::accept]).toLower();
    return isWebSocket || accepted.split(';').constFirst().trimmed() == "text/event-stream";
}

/// The web server does not know the port it is reached on: a redirect to itself becomes one to its path.
void fixLocation(http::fields *fields, boost::beast::string_view host)
{
    const QUrl location(QString::fromLatin1(toByteArray((*fields)[http::field::location])));
    const QUrl self(QStringLiteral("http://") + QString::fromLatin1(toByteArray(host)));
    constexpr int webServerPort = 80;
    if (location.scheme() != QLatin1String("http") || location.host() != self.host() ||
        location.port(webServerPort) != webServerPort)
        return;
    const QByteArray path = location.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
    fields->set(http::field::location, path.isEmpty() ? "/" : path.toStdString());
}
} // namespace

ProxyConnection::ProxyConnection(QTcpSocket *socket, QObject *parent) : QObject(parent), m_socket(socket)
{
    socket->setParent(this);
    socket->setReadBufferSize(readAhead);
    m_idle.setSingleShot(true);
    m_idle.setInterval(idleLimit);
    connect(&m_idle, &QTimer::timeout, socket, &QTcpSocket::abort);
    connect(socket, &QTcpSocket::readyRead, this, &ProxyConnection::read);
    connect(socket, &QTcpSocket::bytesWritten, this, &ProxyConnection::written);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        m_isReading = false; // also what is in the buffer
        emit closed();
        deleteLater();
    });
    beginRequest();
}

void ProxyConnection::beginRequest()
{
    m_parser.emplace();
    m_parser->eager(true);
    m_parser->header_limit(longestHead);
    m_parser->body_limit(RelayClient::longestRequest);
    m_isReading = true;
    m_isContinued = m_isHeadSent = m_isChunked = false;
    m_idle.start();
}

void ProxyConnection::read()
{
    if (m_isDraining)
        m_socket->readAll();
    while (m_isReading && (m_socket->bytesAvailable() > 0 || !m_buffer.isEmpty())) {
        m_buffer += m_socket->readAll();
        while (!m_parser->got_some() && (m_buffer.startsWith('\r') || m_buffer.startsWith('\n')))
            m_buffer.remove(0, 1); // RFC 9112, 2.2
        boost::system::error_code error;
        const auto used = static_cast<int>(
            m_parser->put(boost::asio::buffer(m_buffer.constData(), static_cast<size_t>(m_buffer.size())), error));
        m_buffer.remove(0, used);
        if (m_buffer.size() > readAhead) // of one line or head
            error = http::error::header_limit;
        if (error && error != http::error::need_more)
            return refuse(error);
        if (m_parser->is_done())
            return takeRequest();
        const bool mustAsk = m_parser->is_header_done() && !m_isContinued &&
                             boost::beast::iequals(m_parser->get()[http::field::expect], "100-continue");
        if (mustAsk) {
            m_isContinued = true;
            m_socket->write("HTTP/1.1 100 Continue\r\n\r\n");
        }
        if (used == 0)
            return; // until more comes
    }
}

void ProxyConnection::refuse(const boost::system::error_code &error)
{
    m_isKept = false; // what follows cannot be told apart
    if (error == http::error::body_limit)
        fail(413, QStringLiteral("a request must fit into %1 bytes").arg(RelayClient::longestRequest));
    else if (error == http::error::header_limit)
        fail(431, QStringLiteral("the fields of a request must fit into %1 bytes").arg(longestHead));
    else
        fail(400, QStringLiteral("this is no HTTP request: %1").arg(QString::fromStdString(error.message())));
}

void ProxyConnection::takeRequest()
{
    m_isReading = false;
    m_idle.stop();
    m_request = m_parser->release();
    m_version = m_request.version();
    m_isKept = m_request.keep_alive() && m_version >= http11;
    if (m_request.method() == http::verb::connect)
        return fail(501, QStringLiteral("this is a way to one box, not to everywhere"));
    if (isForStream(m_request))
        return fail(501, QLatin1String(noStreams));

    const QByteArray target = toByteArray(m_request.target());
    static const QByteArray scheme("http://");
    if (target.left(scheme.size()).toLower() ==
        scheme) { // as a client writes it that takes us for its proxy to everywhere
        const int path = target.indexOf('/', scheme.size());
        const QByteArray authority = target.mid(scheme.size(), path < 0 ? -1 : path - scheme.size());
        m_request.target(path < 0 ? "/" : target.mid(path).toStdString());
        m_request.set(http::field::host, authority.toStdString());
    }
    removeHopByHop(&m_request);
    m_request.erase(http::field::expect);
    m_request.insert(http::field::via, "1.1 nat-peer");
    if (m_request.find(http::field::host) == m_request.end()) // of an HTTP/1.0 client
        m_request.set(http::field::host, "localhost");
    const auto method = m_request.method();
    // A field that announces chunks would have the relay wait for them, also behind a HEAD; to HTTP/1.0 none is sent.
    constexpr unsigned http10 = 10;
    m_request.version(method == http::verb::head ? http10 : http11);
    const bool hasBody = !m_request.body().empty() || method == http::verb::post || method == http::verb::put;
    m_request.content_length(hasBody ? boost::optional<std::uint64_t>(m_request.body().size()) : boost::none);

    std::ostringstream wire;
    wire << m_request;
    if (wire.str().size() > static_cast<size_t>(RelayClient::longestRequest))
        return fail(413, QStringLiteral("a request must fit into %1 bytes").arg(RelayClient::longestRequest));
    emit requested();
}

void ProxyConnection::sendHead(const HttpResponseHead &head, std::optional<quint64> length)
{
    http::response<http::empty_body> response(head);
    removeHopByHop(&response);
    fixLocation(&response, m_request[http::field::host]);
    const auto status = head.result_int();
    const bool hasBody = m_request.method() != http::verb::head && status != 204 && status != 304;
    response.version(http11);
    if (hasBody) {
        m_isChunked = !length && m_version >= http11;
        m_isKept &= length || m_isChunked;
        response.chunked(m_isChunked);
        if (length)
            response.content_length(*length);
    }
    constexpr unsigned noContent = 204;
    if (status == noContent)
        response.erase(http::field::content_length);
    response.keep_alive(m_isKept);
    std::ostringstream wire;
    wire << response.base();
    m_socket->write(QByteArray::fromStdString(wire.str()));
    m_isHeadSent = true;
}

void ProxyConnection::sendBody(const QByteArray &bytes)
{
    if (m_isChunked && !bytes.isEmpty())
        m_socket->write(QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n");
    else
        m_socket->write(bytes);
}

void ProxyConnection::finish()
{
    if (m_isChunked)
        m_socket->write("0\r\n\r\n");
    m_isDraining = !m_isKept;
    if (m_isKept)
        beginRequest();
    written();
    QMetaObject::invokeMethod(this, &ProxyConnection::read, Qt::QueuedConnection); // what came meanwhile
}

/// A client has time as long as it reads. Closed at once, with bytes of the client unread, the connection would be
/// reset before the client has read the response; so what it still sends is read for a moment.
void ProxyConnection::written()
{
    if (m_socket->bytesToWrite() > 0)
        m_idle.start(idleLimit);
    else if (m_isDraining && m_parser->is_done())
        m_socket->disconnectFromHost();
    else if (m_isDraining)
        m_idle.start(drainLimit);
    else if (!m_isReading)
        m_idle.stop(); // it is ours to go on
}

bool ProxyConnection::isStuffed() const
{
    return m_socket->bytesToWrite() > unreadLimit;
}

void ProxyConnection::fail(unsigned status, const QString &reason)
{
    if (m_isHeadSent) {
        // With a reset: for a client of HTTP/1.0 an ordinary end would be that of a whole body.
        const linger reset{1, 0};
        setsockopt(static_cast<int>(m_socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        return m_socket->abort();
    }
    answer(status, "text/plain; charset=utf-8", reason.toUtf8() + '\n');
}

void ProxyConnection::answer(unsigned status, const QByteArray &type, const QByteArray &body)
{
    m_isReading = false;
    HttpResponseHead head;
    head.result(status);
    head.set(http::field::content_type, type.toStdString());
    head.set(http::field::cache_control, "no-store");
    head.set("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'");
    if (status == 503)
        head.set(http::field::retry_after, "1");
    sendHead(head, static_cast<quint64>(body.size()));
    if (m_request.method() != http::verb::head)
        sendBody(body);
    finish();
}
