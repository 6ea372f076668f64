// The messages are put together and taken apart by coturn's own library for clients, which knows neither sockets nor
// time: this file does the asking, again and again until there is an answer.

#include "client/path/turnchannel.h"

#include <QHostInfo>
#include <QtEndian>

#include <turn/ns_turn_msg.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds repeatSpacing = 400ms;
constexpr int mostSends = 12;
constexpr int sendsUntilNext = 5;                          // 2 s, before the server is tried in another way
constexpr std::chrono::milliseconds refreshSpacing = 200s; // permissions end after 300 s, the address after lifetime
constexpr std::uint32_t lifetime = 600;                    // seconds
constexpr std::size_t room = 65536;                        // for a message, whose attributes have 16 bits of length

std::uint8_t *bytesOf(QByteArray *bytes)
{
    return reinterpret_cast<std::uint8_t *>(bytes->data());
}

const std::uint8_t *bytesOf(const QByteArray &bytes)
{
    return reinterpret_cast<const std::uint8_t *>(bytes.constData());
}

ioa_addr native(const QHostAddress &address, quint16 port)
{
    ioa_addr result = {};
    bool isIpv4 = false;
    const QHostAddress ipv4(address.toIPv4Address(&isIpv4));
    const QByteArray text = (isIpv4 ? ipv4 : address).toString().toLatin1();
    make_ioa_addr(bytesOf(text), port, &result);
    return result;
}

/// The address that an attribute has; null where there is none.
std::pair<QHostAddress, quint16> addressIn(const QByteArray &message, std::uint16_t attribute)
{
    ioa_addr address = {};
    if (stun_attr_get_first_addr_str(bytesOf(message), static_cast<std::size_t>(message.size()), attribute, &address,
                                     nullptr) < 0)
        return {};
    return {QHostAddress(reinterpret_cast<const sockaddr *>(&address)), static_cast<quint16>(addr_get_port(&address))};
}

QByteArray idOf(const QByteArray &message)
{
    constexpr int offset = 8;
    constexpr int length = 12;
    return message.mid(offset, length);
}
} // namespace

TurnChannel::TurnChannel(TurnAccount account, QObject *parent) : Channel(parent), m_account(std::move(account))
{
    m_repeat.setInterval(repeatSpacing);
    connect(&m_repeat, &QTimer::timeout, this, &TurnChannel::transmit);
    m_refresh.setInterval(refreshSpacing);
    connect(&m_refresh, &QTimer::timeout, this, &TurnChannel::refresh);
    const QHostAddress literal(m_account.host);
    if (!literal.isNull()) {
        begin({literal});
        return;
    }
    QHostInfo::lookupHost(m_account.host, this, [this](const QHostInfo &host) {
        if (host.addresses().isEmpty())
            return fail(QStringLiteral("no address found for it"));
        begin(host.addresses());
    });
}

TurnChannel::~TurnChannel()
{
    if (!m_isOpen)
        return;
    constexpr std::uint32_t atOnce = 0;
    QByteArray bytes(static_cast<int>(room), '\0');
    std::size_t length = 0;
    stun_init_request_str(STUN_METHOD_REFRESH, bytesOf(&bytes), &length);
    const std::uint32_t none = qToBigEndian(atOnce);
    stun_attr_add_str(bytesOf(&bytes), &length, STUN_ATTRIBUTE_LIFETIME, reinterpret_cast<const std::uint8_t *>(&none),
                      sizeof none);
    stun_attr_add_integrity_by_user_str(bytesOf(&bytes), &length, bytesOf(m_account.user), bytesOf(m_realm),
                                        bytesOf(m_account.password), bytesOf(m_nonce), SHATYPE_SHA1);
    m_transport->send(bytes.left(static_cast<int>(length)));
}

void TurnChannel::begin(const QList<QHostAddress> &addresses)
{
    using Kind = TurnTransport::Kind;
    for (const Kind kind : {Kind::Udp, Kind::Tcp, Kind::Tls}) {
        const quint16 port = kind == Kind::Tls ? m_account.tlsPort : m_account.port;
        const bool isOf = kind == Kind::Udp ? !m_account.isUdpBlocked : port != 0;
        for (const QHostAddress &address : isOf ? addresses : QList<QHostAddress>())
            m_untried.append({kind, address, port, m_account.host});
    }
    next(QString());
}

/// Tries the server in the next way there is; `reason` is why not in this one.
void TurnChannel::next(const QString &reason)
{
    if (m_transport != nullptr) {
        m_transport->disconnect(this);
        m_transport->deleteLater(); // it may be what is telling us something
    }
    m_transport = nullptr;
    if (m_untried.isEmpty())
        return fail(reason);
    m_transport = new TurnTransport(m_untried.takeFirst(), this);
    connect(m_transport, &TurnTransport::received, this, &TurnChannel::take);
    connect(m_transport, &TurnTransport::closed, this, [this] {
        const QString lost = QStringLiteral("it cannot be reached");
        return m_isOpen ? fail(lost) : next(lost);
    });
    m_requests.clear();
    m_nonce.clear();
    ask(STUN_METHOD_ALLOCATE);
}

void TurnChannel::permit(const QHostAddress &address)
{
    if (m_permitted.contains(address))
        return;
    m_permitted.insert(address);
    if (m_isOpen)
        ask(STUN_METHOD_CREATE_PERMISSION, address);
}

void TurnChannel::send(const QByteArray &data, const QHostAddress &to, quint16 port)
{
    if (!m_isOpen)
        return;
    QByteArray bytes(static_cast<int>(room), '\0');
    std::size_t length = 0;
    stun_init_indication_str(STUN_METHOD_SEND, bytesOf(&bytes), &length);
    const ioa_addr peer = native(to, port);
    stun_attr_add_addr_str(bytesOf(&bytes), &length, STUN_ATTRIBUTE_XOR_PEER_ADDRESS, &peer);
    stun_attr_add_str(bytesOf(&bytes), &length, STUN_ATTRIBUTE_DATA, bytesOf(data), data.size());
    m_transport->send(bytes.left(static_cast<int>(length)));
}

void TurnChannel::ask(quint16 method, const QHostAddress &peer)
{
    Request request;
    request.method = method;
    request.peer = peer;
    compose(&request);
    m_requests.append(request);
    m_transport->send(request.bytes);
    m_repeat.start();
}

void TurnChannel::compose(Request *request) const
{
    QByteArray bytes(static_cast<int>(room), '\0');
    std::size_t length = 0;
    std::uint8_t *buffer = bytesOf(&bytes);
    if (request->method == STUN_METHOD_ALLOCATE) {
        stun_set_allocate_request_str(buffer, &length, lifetime, 1, 0, STUN_ATTRIBUTE_TRANSPORT_UDP_VALUE, 0, nullptr,
                                      -1);
    } else {
        stun_init_request_str(request->method, buffer, &length);
        if (request->method == STUN_METHOD_REFRESH) {
            const std::uint32_t time = qToBigEndian(lifetime);
            stun_attr_add_str(buffer, &length, STUN_ATTRIBUTE_LIFETIME, reinterpret_cast<const std::uint8_t *>(&time),
                              sizeof time);
        } else {
            const ioa_addr peer = native(request->peer, 0);
            stun_attr_add_addr_str(buffer, &length, STUN_ATTRIBUTE_XOR_PEER_ADDRESS, &peer);
        }
    }
    if (!m_nonce.isEmpty())
        stun_attr_add_integrity_by_user_str(buffer, &length, bytesOf(m_account.user), bytesOf(m_realm),
                                            bytesOf(m_account.password), bytesOf(m_nonce), SHATYPE_SHA1);
    request->nonce = m_nonce;
    request->bytes = bytes.left(static_cast<int>(length));
    request->id = idOf(request->bytes);
}

void TurnChannel::transmit()
{
    if (m_requests.isEmpty())
        return m_repeat.stop();
    for (Request &request : m_requests) {
        request.sent++;
        if (!m_isOpen && request.sent >= sendsUntilNext && !m_untried.isEmpty())
            return next(QString());
        if (request.sent > mostSends)
            return fail(QStringLiteral("it does not answer"));
        if (m_transport->isLossy())
            m_transport->send(request.bytes);
    }
}

void TurnChannel::refresh()
{
    ask(STUN_METHOD_REFRESH);
    for (const QHostAddress &address : qAsConst(m_permitted))
        ask(STUN_METHOD_CREATE_PERMISSION, address);
}

void TurnChannel::take(const QByteArray &message)
{
    const auto length = static_cast<std::size_t>(message.size());
    if (!stun_is_command_message_str(bytesOf(message), length))
        return;
    if (!stun_is_indication_str(bytesOf(message), length))
        return takeResponse(message);
    const stun_attr_ref data = stun_attr_get_first_by_type_str(bytesOf(message), length, STUN_ATTRIBUTE_DATA);
    const auto [peer, port] = addressIn(message, STUN_ATTRIBUTE_XOR_PEER_ADDRESS);
    if (data != nullptr && !peer.isNull() && m_isOpen)
        emit received(QByteArray(reinterpret_cast<const char *>(stun_attr_get_value(data)), stun_attr_get_len(data)),
                      peer, port);
}

void TurnChannel::takeResponse(const QByteArray &message)
{
    const QByteArray id = idOf(message);
    const auto found =
        std::find_if(m_requests.begin(), m_requests.end(), [&id](const Request &request) { return request.id == id; });
    if (found == m_requests.end())
        return;
    Request request = *found;
    m_requests.erase(found);
    const auto length = static_cast<std::size_t>(message.size());
    int code = 0;
    std::array<std::uint8_t, 1025> reason = {};
    std::array<std::uint8_t, STUN_MAX_REALM_SIZE + 1> realm = {};
    std::array<std::uint8_t, STUN_MAX_NONCE_SIZE + 1> nonce = {};
    std::array<std::uint8_t, STUN_MAX_SERVER_NAME_SIZE + 1> name = {};
    int oauth = 0;
    if (stun_is_success_response_str(bytesOf(message), length))
        return takeSuccess(request, message);
    if (stun_is_challenge_response_str(bytesOf(message), length, &code, reason.data(), reason.size(), realm.data(),
                                       nonce.data(), name.data(), &oauth)) {
        m_realm = QByteArray(reinterpret_cast<const char *>(realm.data()));
        m_nonce = QByteArray(reinterpret_cast<const char *>(nonce.data()));
        if (m_nonce != request.nonce) { // new to this request, if not to others
            compose(&request);
            m_requests.append(request);
            m_transport->send(request.bytes);
            return;
        }
    } else {
        stun_is_error_response_str(bytesOf(message), length, &code, reason.data(), reason.size());
    }
    if (request.method != STUN_METHOD_CREATE_PERMISSION) // one that it refuses concerns that address alone
        fail(QStringLiteral("it refuses: %1").arg(code));
}

void TurnChannel::takeSuccess(const Request &request, const QByteArray &message)
{
    if (request.method != STUN_METHOD_ALLOCATE)
        return;
    const auto [relayed, port] = addressIn(message, STUN_ATTRIBUTE_XOR_RELAYED_ADDRESS);
    if (relayed.isNull())
        return fail(QStringLiteral("it gives no address"));
    m_isOpen = true;
    m_refresh.start();
    for (const QHostAddress &address : qAsConst(m_permitted))
        ask(STUN_METHOD_CREATE_PERMISSION, address);
    emit opened(relayed, port);
}

void TurnChannel::fail(const QString &reason)
{
    m_isOpen = false;
    m_requests.clear();
    m_repeat.stop();
    m_refresh.stop();
    emit failed(QStringLiteral("%1 carries nothing: %2").arg(m_account.host, reason));
}
