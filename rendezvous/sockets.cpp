// One socket for each address that this machine has: what is answered must leave from the address that was asked, as
// boxes and routers let nothing else in. What comes to an address that it got later meets the socket for any address,
// which answers from the one that the kernel likes.

#include "rendezvous/sockets.h"

#include "introduction/socketaddress.h"
#include "rendezvous/streams.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

using introduction::Address;
using introduction::fromSocketAddress;
using introduction::socketAddress;

namespace
{
constexpr std::size_t batchSize = 64;
constexpr int bufferLength = 4 << 20; // bytes: some 5,000 registrations that come at once
constexpr std::size_t receiveLength = introduction::longestMessage + 1; // what is longer is none, and shows it

/// Datagrams as the kernel wants them described.
struct Batch {
    std::array<sockaddr_in6, batchSize> addresses = {};
    std::array<iovec, batchSize> parts = {};
    std::array<mmsghdr, batchSize> messages = {};

    void describe(std::size_t index, char *bytes, std::size_t length)
    {
        parts.at(index) = {bytes, length};
        msghdr &header = messages.at(index).msg_hdr;
        header.msg_name = &addresses.at(index);
        header.msg_namelen = sizeof(sockaddr_in6);
        header.msg_iov = &parts.at(index);
        header.msg_iovlen = 1;
    }
};

constexpr std::size_t mostSockets = Streams::socket; // as many as a Place can tell apart

/// IPv6 sockets for IPv4 too, where the kernel maps its addresses.
int openSocket(const Address &where, const std::string &name, bool isShared)
{
    const sockaddr_in6 native = socketAddress(where);
    const int descriptor = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int off = 0;
    const int share = isShared ? 1 : 0;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &share, sizeof share);
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    for (const int option : {SO_RCVBUF, SO_SNDBUF})
        setsockopt(descriptor, SOL_SOCKET, option, &bufferLength, sizeof bufferLength);
    if (descriptor >= 0 && bind(descriptor, reinterpret_cast<const sockaddr *>(&native), sizeof native) == 0)
        return descriptor;
    const int reason = errno;
    if (descriptor >= 0)
        close(descriptor);
    throw std::system_error(reason, std::generic_category(), "cannot listen on " + name);
}

/// The addresses of this machine, but for those of one link.
std::vector<Address> ownAddresses(std::uint16_t port)
{
    constexpr std::uint8_t linkLocal = 0xfe;
    std::vector<Address> addresses;
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0)
        return addresses;
    for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next) {
        Address address;
        address.port = port;
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            address.ip = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
            const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
            std::memcpy(address.ip.data() + 12, &ipv4->sin_addr, sizeof ipv4->sin_addr);
            addresses.push_back(address);
        } else if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET6) {
            address = fromSocketAddress(*reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr));
            address.port = port;
            if (address.ip.front() != linkLocal)
                addresses.push_back(address);
        }
    }
    freeifaddrs(first);
    return addresses;
}
} // namespace

Sockets::Sockets(const std::vector<std::string> &listen) : m_buffer(batchSize * receiveLength)
{
    for (const std::string &name : listen) {
        const Address where = addressOf(name);
        const bool isAny = where.ip == Address().ip;
        close(openSocket(where, name, false)); // whether it is free
        m_descriptors.push_back(openSocket(where, name, isAny));
        for (const Address &own : isAny ? ownAddresses(where.port) : std::vector<Address>()) {
            if (m_descriptors.size() < mostSockets)
                m_descriptors.push_back(openSocket(own, name, true));
        }
    }
}

Sockets::~Sockets()
{
    for (const int descriptor : m_descriptors)
        close(descriptor);
}

void Sockets::serve(std::uint8_t socket,
                    const std::function<std::optional<Datagram>(const Place &from, std::string_view bytes)> &take)
{
    Batch batch;
    for (std::size_t index = 0; index < batchSize; index++)
        batch.describe(index, m_buffer.data() + index * receiveLength, receiveLength);
    const int count = recvmmsg(m_descriptors.at(socket), batch.messages.data(), batchSize, MSG_DONTWAIT, nullptr);
    std::vector<Datagram> out;
    out.reserve(batchSize);
    for (std::size_t index = 0; static_cast<int>(index) < count; index++) {
        const Place from{fromSocketAddress(batch.addresses.at(index)), socket};
        if (auto response = take(from, {m_buffer.data() + index * receiveLength, batch.messages.at(index).msg_len}))
            out.push_back(std::move(*response));
    }
    send(out);
}

/// What cannot be sent is lost, as on any network; the other side asks again.
void Sockets::send(const std::vector<Datagram> &datagrams)
{
    std::size_t sent = 0;
    while (sent < datagrams.size()) {
        const std::uint8_t socket = datagrams.at(sent).place.socket;
        Batch batch;
        std::size_t count = 0;
        for (; count < batchSize && sent + count < datagrams.size(); count++) {
            const Datagram &datagram = datagrams.at(sent + count);
            if (datagram.place.socket != socket)
                break;
            batch.addresses.at(count) = socketAddress(datagram.place.address);
            batch.describe(count, const_cast<char *>(datagram.bytes.data()), datagram.bytes.size());
        }
        const bool isThere = socket < m_descriptors.size(); // or a ticket of an earlier start tells of it
        const int done = !isThere ? static_cast<int>(count)
                                  : sendmmsg(m_descriptors.at(socket), batch.messages.data(),
                                             static_cast<unsigned>(count), MSG_DONTWAIT);
        sent += done > 0 ? static_cast<std::size_t>(done) : 1;
    }
}

introduction::Address addressOf(const std::string &text)
{
    Address address;
    const auto colon = text.rfind(':');
    const std::string host = text.substr(0, colon);
    const std::string port = colon == std::string::npos ? std::string() : text.substr(colon + 1);
    const bool isNumber =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long number = isNumber ? std::stoul(port) : 0;
    const bool isIpv6 = host.size() > 2 && host.front() == '[' && host.back() == ']';
    const std::string form = isIpv6 ? host.substr(1, host.size() - 2) : "::ffff:" + host;
    if (number == 0 || number > 65535 || inet_pton(AF_INET6, form.c_str(), address.ip.data()) != 1)
        throw std::invalid_argument("'" + text + "' must be ADDRESS:PORT, an IPv6 address in brackets");
    address.port = static_cast<std::uint16_t>(number);
    return address;
}
