// A response is held back until it is whole, so that a failure can still be answered with an error; only a long one is
// passed on while it comes.

#include "client/http/httpproxy.h"

#include "client/http/proxyconnection.h"

#include <algorithm>
#include <utility>

namespace
{
constexpr int heldLimit = 8 * 1024 * 1024; // bytes of a body
constexpr int connectionLimit = 256;       // the others wait to be accepted
} // namespace

HttpProxy::HttpProxy(RelayClient *client, const Options &options, QObject *parent)
    : QObject(parent), m_exchange(client), m_options(options)
{
    connect(&m_server, &QTcpServer::newConnection, this, &HttpProxy::accept);
    connect(&m_exchange, &Exchange::progressed, this, [this] {
        emit progressed(m_exchange.traffic());
        forward();
    });
    connect(&m_exchange, &Exchange::finished, this, [this] {
        forward();
        ProxyConnection *connection = std::exchange(m_current, nullptr);
        if (connection == nullptr)
            return; // forward() has given it up
        if (!connection->isHeadSent())
            connection->sendHead(m_exchange.head(), static_cast<quint64>(m_held.size()));
        connection->sendBody(m_held);
        connection->finish();
        end(QString::number(m_exchange.head().result_int()), m_options.isVerbose);
    });
    connect(&m_exchange, &Exchange::failed, this, [this](unsigned status, const QString &reason) {
        std::exchange(m_current, nullptr)->fail(status, reason); // which may close it
        end(QStringLiteral("%1, %2").arg(status).arg(reason), true);
    });
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
    m_waiting.removeAll(connection);
    if (connection != m_current)
        return;
    m_current = nullptr;
    m_exchange.cancel();
    end(QStringLiteral("the client went away"), m_options.isVerbose);
}

void HttpProxy::enqueue(ProxyConnection *connection)
{
    if (m_waiting.size() >= m_options.queueLimit)
        return connection->fail(503, QStringLiteral("%1 requests wait already").arg(m_waiting.size()));
    m_waiting.append(connection);
    next();
}

void HttpProxy::next()
{
    if (m_isBusy || m_waiting.isEmpty())
        return;
    m_current = m_waiting.takeFirst();
    m_isBusy = true;
    m_held.clear();
    m_sinceStart.start();
    m_exchange.start(m_current->request());
}

/// Passes a long body on while it comes.
void HttpProxy::forward()
{
    m_held += m_exchange.takeBody();
    if (m_held.size() <= heldLimit && !m_current->isHeadSent())
        return;
    if (!m_current->isHeadSent())
        m_current->sendHead(m_exchange.head(), m_exchange.length());
    m_current->sendBody(std::exchange(m_held, QByteArray()));
    if (m_current->isStuffed())
        m_current->fail(504, QString()); // breaks the connection, and so ends the exchange
}

void HttpProxy::end(const QString &outcome, bool isTold)
{
    const auto goOn = [this] {
        m_isBusy = false;
        next();
    };
    QMetaObject::invokeMethod(this, goOn, Qt::QueuedConnection);
    if (!isTold)
        return;
    const HttpRequest &request = m_exchange.request();
    const RelayClient::Traffic traffic = m_exchange.traffic();
    const double seconds = static_cast<double>(m_sinceStart.elapsed()) / 1000;
    const QString rate = QString::number(static_cast<double>(traffic.bytes) / 1000 / std::max(seconds, 0.001), 'f', 0);
    // All at once: a target may hold %1 too.
    emit logged(QStringLiteral("%1 %2: %3; %4 bytes in %5 packets, %6 came again, %7 s, %8 kB/s")
                    .arg(QString::fromLatin1(toByteArray(request.method_string())),
                         QString::fromLatin1(toByteArray(request.target())), outcome, QString::number(traffic.bytes),
                         QString::number(traffic.packets), QString::number(traffic.repeats),
                         QString::number(seconds, 'f', 1), rate));
}
