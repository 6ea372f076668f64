// The answer is told by its transaction id, 96 random bits: nobody else knows them but who is on the way.

#include "client/path/stunprobe.h"

#include "introduction/hostaddress.h"

#include <QHostInfo>

#include <turn/ns_turn_msg.h>

#include <algorithm>
#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds repeatSpacing = 500ms;
constexpr int mostSends = 4;
constexpr int idOffset = 4; // cookie and transaction id, which an answer repeats
constexpr int idLength = 16;

const std::uint8_t *bytesOf(const QByteArray &bytes)
{
    return reinterpret_cast<const std::uint8_t *>(bytes.constData());
}
} // namespace

StunProbe::StunProbe(UdpChannel *channel, const QString &host, quint16 port, QObject *parent)
    : QObject(parent), m_channel(channel), m_port(port)
{
    constexpr int room = 100;
    m_request.resize(room);
    std::size_t length = 0;
    stun_set_binding_request_str(reinterpret_cast<std::uint8_t *>(m_request.data()), &length);
    m_request.resize(static_cast<int>(length));
    m_repeat.setInterval(repeatSpacing);
    connect(&m_repeat, &QTimer::timeout, this, &StunProbe::ask);
    const QHostAddress literal(host);
    if (literal.isNull())
        QHostInfo::lookupHost(host, this, [this](const QHostInfo &found) { begin(found.addresses()); });
    else
        begin({literal});
}

void StunProbe::begin(const QList<QHostAddress> &addresses)
{
    if (addresses.isEmpty())
        return;
    // Routers that translate are those of IPv4.
    const auto ipv4 = std::find_if(addresses.cbegin(), addresses.cend(), [](const QHostAddress &address) {
        return address.protocol() == QAbstractSocket::IPv4Protocol;
    });
    m_server = ipv4 == addresses.cend() ? addresses.constFirst() : *ipv4;
    m_repeat.start();
    ask();
}

void StunProbe::ask()
{
    if (++m_sent > mostSends)
        return m_repeat.stop();
    m_channel->send(m_request, m_server, m_port);
}

bool StunProbe::take(const QByteArray &data)
{
    const auto length = static_cast<std::size_t>(data.size());
    const bool isAnswer = data.mid(idOffset, idLength) == m_request.mid(idOffset, idLength) &&
                          stun_is_binding_response_str(bytesOf(data), length) &&
                          stun_is_success_response_str(bytesOf(data), length);
    if (!isAnswer)
        return false;
    m_repeat.stop();
    ioa_addr address = {};
    if (stun_attr_get_first_addr_str(bytesOf(data), length, STUN_ATTRIBUTE_XOR_MAPPED_ADDRESS, &address, nullptr) >= 0)
        emit seen(introduction::addressOf(QHostAddress(reinterpret_cast<const sockaddr *>(&address)),
                                          static_cast<quint16>(addr_get_port(&address))));
    return true;
}
