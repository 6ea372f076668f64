// The relay is told good-bye in every case: it would go on sending to a peer that has gone.

#include "client/http/fetch.h"

#include <boost/beast/http/write.hpp>

#include <cstdio>
#include <sstream>

namespace http = boost::beast::http;

Fetch::Fetch(RelayClient *client, bool withHead, bool mayBeError)
    : m_client(client), m_exchange(client), m_isHeadWanted(withHead), m_mayBeError(mayBeError)
{
    connect(&m_exchange, &Exchange::progressed, this, [this] {
        emit progressed(m_exchange.traffic());
        write();
    });
    connect(&m_exchange, &Exchange::paused, &m_exchange, &Exchange::resume);
    connect(&m_exchange, &Exchange::finished, this, [this] {
        write();
        end(isFailure() ? QStringLiteral("the web server answers with status %1").arg(m_exchange.head().result_int())
                        : QString());
    });
    connect(&m_exchange, &Exchange::failed, this, [this](unsigned /*status*/, const QString &reason) {
        write();
        end(reason);
    });
    connect(client, &RelayClient::left, this, [this] { emit finished(m_error); });
}

void Fetch::get(const QString &target)
{
    constexpr unsigned http11 = 11;
    HttpRequest request(http::verb::get, target.toStdString(), http11);
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::user_agent, "nat-peer");
    request.set(http::field::accept, "*/*");
    m_exchange.start(request);
}

void Fetch::interrupt()
{
    m_exchange.cancel();
    end(QStringLiteral("interrupted"));
}

void Fetch::write()
{
    QByteArray output = m_exchange.takeBody();
    if (isFailure())
        return;
    if (m_isHeadWanted && m_exchange.head().result_int() != 0) {
        std::ostringstream head;
        head << m_exchange.head();
        output.prepend(QByteArray::fromStdString(head.str()));
        m_isHeadWanted = false;
    }
    const bool isWritten = std::fwrite(output.constData(), 1, static_cast<size_t>(output.size()), stdout) ==
                               static_cast<size_t>(output.size()) &&
                           std::fflush(stdout) == 0;
    if (isWritten || m_hasEnded)
        return;
    m_exchange.cancel();
    end(QStringLiteral("cannot write to standard output: ") + qt_error_string());
}

bool Fetch::isFailure() const
{
    constexpr unsigned firstError = 400;
    return !m_mayBeError && m_exchange.head().result_int() >= firstError;
}

void Fetch::end(const QString &error)
{
    if (m_hasEnded)
        return;
    m_hasEnded = true;
    m_error = error;
    m_client->leave();
}
