#include "rendezvous/streams.h"

#include "introduction/socketaddress.h"
#include "rendezvous/network.h"
#include "rendezvous/sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

using introduction::Address;
using namespace std::chrono_literals;

namespace
{
constexpr std::size_t mostConnections = 500; // of 1,024 descriptors
constexpr int mostOfNetwork = 50;            // of one network's
constexpr Moment silenceLimit = 60s;
constexpr int mostEvents = 64; // at a time, so that UDP has its turn
constexpr std::size_t lengthSize = 2;
constexpr std::size_t readSize = 4096;

int openListener(const std::string &name)
{
    const sockaddr_in6 native = introduction::socketAddress(addressOf(name));
    const int descriptor = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int off = 0;
    const int on = 1;
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // connections of the start before may linger
    if (bind(descriptor, reinterpret_cast<const sockaddr *>(&native), sizeof native) == 0 &&
        listen(descriptor, SOMAXCONN) == 0)
        return descriptor;
    const int reason = errno;
    if (descriptor >= 0)
        ::close(descriptor);
    throw std::system_error(reason, std::generic_category(), "cannot listen on TCP " + name);
}
} // namespace

Streams::Streams(const std::vector<std::string> &listen) : m_events(epoll_create1(EPOLL_CLOEXEC))
{
    for (const std::string &name : listen) {
        const int listener = openListener(name);
        m_listeners.push_back(listener);
        epoll_event wanted = {};
        wanted.events = EPOLLIN;
        wanted.data.fd = listener;
        epoll_ctl(m_events, EPOLL_CTL_ADD, listener, &wanted);
    }
}

Streams::~Streams()
{
    while (!m_connections.empty())
        close(m_connections.begin());
    for (const int listener : m_listeners)
        ::close(listener);
    ::close(m_events);
}

void Streams::serve(Moment now, const std::function<void(const Place &from, std::string_view bytes)> &take)
{
    std::array<epoll_event, mostEvents> events = {};
    const int count = epoll_wait(m_events, events.data(), mostEvents, 0);
    for (int index = 0; index < count; index++) {
        const int descriptor = events.at(static_cast<std::size_t>(index)).data.fd;
        if (std::find(m_listeners.cbegin(), m_listeners.cend(), descriptor) != m_listeners.cend()) {
            accept(descriptor, now);
            continue;
        }
        const auto connection = find(descriptor);
        if (connection == m_connections.end())
            continue; // one that had to make room just now
        m_connections.splice(m_connections.end(), m_connections, connection);
        connection->seen = now;
        if (!read(&*connection, take))
            close(connection);
    }
}

void Streams::accept(int listener, Moment now)
{
    sockaddr_in6 native = {};
    socklen_t length = sizeof native;
    const int descriptor =
        accept4(listener, reinterpret_cast<sockaddr *>(&native), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0)
        return;
    const Address peer = introduction::fromSocketAddress(native);
    makeRoom(peer);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_connections.push_back({descriptor, peer, now, std::string()});
    epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = descriptor;
    epoll_ctl(m_events, EPOLL_CTL_ADD, descriptor, &wanted);
}

/// Who was silent longest goes: where a network has many, one of its own, so that it cannot cut off all others.
void Streams::makeRoom(const Address &comer)
{
    const auto isNear = [network = networkOf(comer)](const Connection &one) { return networkOf(one.peer) == network; };
    if (std::count_if(m_connections.cbegin(), m_connections.cend(), isNear) >= mostOfNetwork)
        close(std::find_if(m_connections.begin(), m_connections.end(), isNear));
    else if (m_connections.size() == mostConnections)
        close(m_connections.begin());
}

/// Whether the connection may stay.
bool Streams::read(Connection *connection, const std::function<void(const Place &from, std::string_view bytes)> &take)
{
    std::array<char, readSize> buffer = {};
    const ssize_t count = recv(connection->descriptor, buffer.data(), buffer.size(), 0);
    if (count <= 0)
        return count < 0 && errno == EAGAIN;
    std::string unread = std::move(connection->unread);
    unread.append(buffer.data(), static_cast<std::size_t>(count));
    std::string_view rest = unread;
    const Place from{connection->peer, socket};
    while (rest.size() >= lengthSize) {
        const auto length =
            static_cast<std::size_t>(static_cast<unsigned char>(rest[0]) << 8U | static_cast<unsigned char>(rest[1]));
        if (length > introduction::longestMessage)
            return false;
        if (rest.size() < lengthSize + length)
            break;
        take(from, rest.substr(lengthSize, length));
        rest.remove_prefix(lengthSize + length);
    }
    connection->unread = rest;
    return true;
}

void Streams::send(const Datagram &datagram)
{
    const auto connection =
        std::find_if(m_connections.begin(), m_connections.end(),
                     [&datagram](const Connection &one) { return one.peer == datagram.place.address; });
    if (connection == m_connections.end())
        return;
    const std::size_t length = datagram.bytes.size();
    std::string bytes{static_cast<char>(length >> 8U), static_cast<char>(length)};
    bytes += datagram.bytes;
    const ssize_t sent = ::send(connection->descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size()))
        shutdown(connection->descriptor, SHUT_RDWR); // and closed at the next turn: it may be in use now
}

void Streams::closeSilent(Moment now)
{
    while (!m_connections.empty() && now - m_connections.front().seen > silenceLimit)
        close(m_connections.begin());
}

void Streams::close(Connections::iterator connection)
{
    ::close(connection->descriptor); // which takes it out of m_events
    m_connections.erase(connection);
}

Streams::Connections::iterator Streams::find(int descriptor)
{
    return std::find_if(m_connections.begin(), m_connections.end(),
                        [descriptor](const Connection &one) { return one.descriptor == descriptor; });
}
