// Nobody's certificate is checked: the server knows this peer by its credential, which never passes in clear, and what
// it carries is enciphered for the box. TLS is there for firewalls, and works with a certificate that the server's
// owner made himself.

#include "client/path/turntransport.h"

#include "protocol/datagramio.h"

#include <turn/ns_turn_msg.h>

#include <utility>

namespace
{
constexpr qint64 mostUnsent = 1 << 20; // bytes; what comes on top is lost, as on a bad line
constexpr int longestMessage = 65536 + 20;
} // namespace

TurnTransport::TurnTransport(Server server, QObject *parent) : QObject(parent), m_server(std::move(server))
{
    if (isLossy()) {
        connect(&m_datagrams, &QUdpSocket::readyRead, this, &TurnTransport::readDatagrams);
        m_datagrams.bind(QHostAddress(QHostAddress::Any), 0);
        return;
    }
    connect(&m_stream, &QSslSocket::readyRead, this, &TurnTransport::readStream);
    // Later: what fails at once, such as IPv6 where there is none, does so before anybody listens.
    connect(&m_stream, &QSslSocket::errorOccurred, this, &TurnTransport::closed, Qt::QueuedConnection);
    connect(&m_stream, &QAbstractSocket::connected, this, &TurnTransport::sendUnsent);
    connect(&m_stream, &QSslSocket::encrypted, this, &TurnTransport::sendUnsent);
    m_stream.setPeerVerifyMode(QSslSocket::VerifyNone);
    if (m_server.kind == Kind::Tls)
        m_stream.connectToHostEncrypted(m_server.address.toString(), m_server.port, m_server.name);
    else
        m_stream.connectToHost(m_server.address, m_server.port);
    m_stream.setSocketOption(QAbstractSocket::LowDelayOption, 1);
}

void TurnTransport::send(const QByteArray &message)
{
    if (isLossy())
        m_datagrams.writeDatagram(message, m_server.address, m_server.port);
    else if (m_unsent.size() + m_stream.bytesToWrite() < mostUnsent)
        m_unsent += message;
    sendUnsent();
}

/// Not before there is a connection: Qt would complain where it is refused.
void TurnTransport::sendUnsent()
{
    if (m_server.kind == Kind::Tls ? m_stream.isEncrypted() : m_stream.state() == QAbstractSocket::ConnectedState)
        m_stream.write(std::exchange(m_unsent, {}));
}

QString TurnTransport::text() const
{
    switch (m_server.kind) {
    case Kind::Tcp:
        return QStringLiteral(" over TCP");
    case Kind::Tls:
        return QStringLiteral(" over TLS");
    default:
        return QString();
    }
}

void TurnTransport::readDatagrams()
{
    do {
        QHostAddress from;
        quint16 port = 0;
        const QByteArray message = datagram::take(&m_datagrams, &from, &port);
        if (port == m_server.port && from.isEqual(m_server.address, QHostAddress::TolerantConversion))
            emit received(message);
    } while (m_datagrams.hasPendingDatagrams());
}

void TurnTransport::readStream()
{
    m_unread += m_stream.readAll();
    std::size_t length = 0;
    for (;;) {
        const int whole = stun_get_message_len_str(reinterpret_cast<std::uint8_t *>(m_unread.data()),
                                                   static_cast<std::size_t>(m_unread.size()), 1, &length);
        if (whole <= 0)
            break;
        const QByteArray message = m_unread.left(static_cast<int>(length));
        m_unread.remove(0, whole);
        emit received(message);
    }
    if (m_unread.size() > longestMessage) // what stands there is no message's beginning
        emit closed();
}
