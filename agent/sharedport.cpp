// Two sockets may have the relay's port, as the relay binds it for sharing. The kernel gives a datagram to the one that
// is connected to its sender, and any other datagram to one that is not connected at all: of several to the one that it
// finds first, which is the one bound last. That would be this one, between its bind and its connect. With
// SO_REUSEPORT, which the relay's does not have, it stands behind the relay's instead, so that not even then a datagram
// is lost to it.

#include "agent/sharedport.h"

#include "introduction/socketaddress.h"

#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

using introduction::Address;
using introduction::socketAddress;

namespace
{
constexpr int mostAtOnce = 64; // datagrams, then others have their turn
constexpr std::size_t prefixLength = 12;

/// Gives -1, and errno, where that cannot be.
int openSocket(quint16 port, const Address &other)
{
    Address any;
    any.port = port;
    const sockaddr_in6 from = socketAddress(any);
    const sockaddr_in6 target = socketAddress(other);
    const int descriptor = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int off = 0;
    const int on = 1;
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    for (const int option : {SO_REUSEADDR, SO_REUSEPORT})
        setsockopt(descriptor, SOL_SOCKET, option, &on, sizeof on);
    if (bind(descriptor, reinterpret_cast<const sockaddr *>(&from), sizeof from) == 0 &&
        connect(descriptor, reinterpret_cast<const sockaddr *>(&target), sizeof target) == 0)
        return descriptor;
    const int reason = errno;
    if (descriptor >= 0)
        close(descriptor);
    errno = reason;
    return -1;
}

bool isOfOneFamily(const Address &left, const Address &right)
{
    const auto isIpv4 = [](const Address &address) {
        static constexpr std::array<std::uint8_t, prefixLength> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
        return std::equal(mapped.cbegin(), mapped.cend(), address.ip.cbegin());
    };
    return isIpv4(left) == isIpv4(right);
}
} // namespace

SharedPort::SharedPort(QObject *parent) : QObject(parent) {}

SharedPort::~SharedPort()
{
    close();
}

void SharedPort::close()
{
    m_notifier.reset();
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

QString SharedPort::open(quint16 port, const Address &server)
{
    close();
    m_port = port;
    m_server = server;
    m_socket = openSocket(port, server);
    if (m_socket < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    m_notifier = std::make_unique<QSocketNotifier>(m_socket, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &SharedPort::read);
    return QString();
}

void SharedPort::sendToServer(std::string_view bytes) const
{
    // An error that was waiting is told instead of sending: that nobody was there a while ago.
    if (m_socket >= 0 && send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 && errno == ECONNREFUSED)
        send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void SharedPort::sendTo(const Address &address, const QByteArray &bytes) const
{
    const auto length = static_cast<size_t>(bytes.size());
    if (m_socket >= 0 && isOfOneFamily(address, m_server)) {
        const sockaddr_in6 target = socketAddress(address);
        sendto(m_socket, bytes.constData(), length, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&target),
               sizeof target);
        return;
    }
    // A socket that is connected over IPv4 has an IPv4 source, and sends nothing over IPv6. This one is open for some
    // microseconds, for which it would get what comes from that very address: a caller, who asks again.
    const int other = openSocket(m_port, address);
    if (other < 0)
        return;
    send(other, bytes.constData(), length, MSG_NOSIGNAL);
    ::close(other);
}

void SharedPort::read()
{
    std::array<char, introduction::longestMessage + 1> buffer = {}; // what is longer is none, and shows it
    for (int count = 0; count < mostAtOnce && m_socket >= 0; count++) {
        const ssize_t length = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        if (length > 0) // else an error that somebody on the way has told, or nothing
            emit received(QByteArray(buffer.data(), static_cast<int>(length)));
    }
}
