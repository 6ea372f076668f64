// A response is held back until it is whole or its rest is sure to come, so that a failure can be answered with an
// error. What breaks off behind that ends in a reset.

#include "client/http/httpproxy.h"

#include "client/http/proxyconnection.h"

#include <QRegularExpression>

#include <algorithm>
#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr int heldLimit = 8 * 1024 * 1024;         // bytes of a body
constexpr int connectionLimit = 256;               // the others wait to be accepted
constexpr int fairTurn = 4;                        // one in so many goes to who has waited longest, lest anybody starve
constexpr std::chrono::milliseconds longTurn = 1s; // in which others should have had theirs
} // namespace

HttpProxy::HttpProxy(RelayClient *client, Options options, QObject *parent)
    : QObject(parent), m_client(client), m_options(std::move(options))
{
    connect(&m_server, &QTcpServer::newConnection, this, &HttpProxy::accept);
}

HttpProxy::Rank HttpProxy::rankOf(const HttpRequest &request)
{
    static const QRegularExpression picture(QStringLiteral("\\A(image|font|audio|video|track)\\b"));
    const auto destination = request["Sec-Fetch-Dest"]; // W3C Fetch Metadata; older browsers only tell what they accept
    const QByteArray wanted =
        toByteArray(destination.empty() ? request[boost::beast::http::field::accept] : destination);
    return picture.match(QString::fromLatin1(wanted)).hasMatch() ? Rank::Picture : Rank::Page;
}

void HttpProxy::accept()
{
    while (m_server.hasPendingConnections()) {
        auto *connection = new ProxyConnection(m_server.nextPendingConnection(), this);
        if (++m_connections == connectionLimit)
            m_server.pauseAccepting();
        connect(connection, &ProxyConnection::requested, this, [this, connection] { enqueue(connection); });
        connect(connection, &ProxyConnection::closed, this, [this, connection] { leave(connection); });
    }
}

void HttpProxy::leave(ProxyConnection *connection)
{
    if (m_connections-- == connectionLimit)
        m_server.resumeAccepting();
    const QString gone = QStringLiteral("the client went away");
    m_waiting.remove_if([&](const auto &job) {
        const bool isItsOwn = job->connection == connection;
        if (isItsOwn && job->isBegun && m_options.isVerbose)
            tell(*job, gone);
        return isItsOwn;
    });
    if (m_current == nullptr || connection != m_current->connection)
        return;
    m_current->connection = nullptr;
    m_current->exchange.cancel();
    end(gone, m_options.isVerbose);
}

/// At once, whatever the box is doing.
void HttpProxy::answer(ProxyConnection *connection) const
{
    const auto method = connection->request().method();
    if (method != boost::beast::http::verb::get && method != boost::beast::http::verb::head)
        return connection->fail(405, QStringLiteral("there is nothing here but to GET"));
    const QByteArray target = toByteArray(connection->request().target());
    const auto page = m_options.ownPage ? m_options.ownPage(target.split('?').constFirst()) : std::nullopt;
    if (page)
        connection->answer(200, page->type, page->body);
    else
        connection->fail(404, QStringLiteral("nat-peer has no such page"));
}

void HttpProxy::enqueue(ProxyConnection *connection)
{
    if (toByteArray(connection->request().target()).startsWith(ownPath))
        return answer(connection);
    if (static_cast<int>(m_waiting.size()) >= m_options.queueLimit)
        return connection->fail(503, QStringLiteral("%1 requests wait already").arg(m_waiting.size()));
    auto job = std::make_unique<Job>(m_client);
    job->connection = connection;
    job->rank = rankOf(connection->request());
    connect(&job->exchange, &Exchange::progressed, this, [this, of = job.get()] {
        emit progressed(of->exchange.traffic());
        forward(of);
    });
    connect(&job->exchange, &Exchange::paused, this, &HttpProxy::pause);
    connect(&job->exchange, &Exchange::finished, this, &HttpProxy::finish);
    connect(&job->exchange, &Exchange::failed, this, [this](unsigned status, const QString &reason) {
        std::exchange(m_current->connection, nullptr)->fail(status, reason); // which may close it
        end(QStringLiteral("%1, %2").arg(status).arg(reason), true);
    });
    m_waiting.push_back(std::move(job));
    next();
}

void HttpProxy::next()
{
    if (m_current != nullptr || m_waiting.empty())
        return;
    const auto isBefore = [](const auto &a, const auto &b) { return a->rank < b->rank; };
    const bool isAnybodysTurn = ++m_turns % fairTurn == 0;
    const auto chosen =
        isAnybodysTurn ? m_waiting.begin() : std::min_element(m_waiting.begin(), m_waiting.end(), isBefore);
    m_current = std::move(*chosen);
    m_waiting.erase(chosen);
    if (std::exchange(m_current->isBegun, true))
        return m_current->exchange.resume();
    m_current->sinceStart.start();
    m_current->exchange.start(m_current->connection->request());
}

/// Passes a body on while it comes, once that is safe or it is too long to be held.
void HttpProxy::forward(Job *job)
{
    job->held += job->exchange.takeBody();
    if (!job->exchange.isFlowing() && job->held.size() <= heldLimit && !job->connection->isHeadSent())
        return;
    if (!job->connection->isHeadSent())
        job->connection->sendHead(job->exchange.head(), job->exchange.length());
    job->connection->sendBody(std::exchange(job->held, QByteArray()));
    if (job->connection->isStuffed())
        job->connection->fail(504, QString()); // breaks the connection, and so ends the exchange
}

void HttpProxy::pause()
{
    m_current->held += m_current->exchange.takeBody();
    if (m_current->connection->isHeadSent() || !m_current->held.isEmpty()) // a page's header may come alone
        m_current->rank = Rank::Download;
    m_waiting.push_back(std::move(m_current));
    QMetaObject::invokeMethod(this, &HttpProxy::next, Qt::QueuedConnection);
}

void HttpProxy::finish()
{
    m_current->held += m_current->exchange.takeBody();
    ProxyConnection *connection = std::exchange(m_current->connection, nullptr);
    if (!connection->isHeadSent())
        connection->sendHead(m_current->exchange.head(), static_cast<quint64>(m_current->held.size()));
    connection->sendBody(m_current->held);
    connection->finish();
    const bool isLong = m_current->exchange.isInChunks() && m_current->sinceStart.hasExpired(longTurn.count());
    end(QString::number(m_current->exchange.head().result_int()) +
            (isLong ? QStringLiteral(" in chunks, so that others had to wait") : QString()),
        m_options.isVerbose);
}

void HttpProxy::end(const QString &outcome, bool isTold)
{
    // Its own signals may still be on their way back through it.
    const std::shared_ptr<Job> job = std::move(m_current);
    QMetaObject::invokeMethod(
        this, [this, job] { next(); }, Qt::QueuedConnection);
    if (isTold)
        tell(*job, outcome);
}

void HttpProxy::tell(const Job &job, const QString &outcome)
{
    const HttpRequest &request = job.exchange.request();
    const RelayClient::Traffic traffic = job.exchange.traffic();
    const double seconds = static_cast<double>(job.sinceStart.elapsed()) / 1000;
    const QString rate = QString::number(static_cast<double>(traffic.bytes) / 1000 / std::max(seconds, 0.001), 'f', 0);
    // All at once: a target may hold %1 too.
    emit logged(QStringLiteral("%1 %2: %3; %4 bytes in %5 packets, %6 came again, %7 s, %8 kB/s")
                    .arg(QString::fromLatin1(toByteArray(request.method_string())),
                         QString::fromLatin1(toByteArray(request.target())), outcome, QString::number(traffic.bytes),
                         QString::number(traffic.packets), QString::number(traffic.repeats),
                         QString::number(seconds, 'f', 1), rate));
}
