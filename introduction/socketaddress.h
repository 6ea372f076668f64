#pragma once

#include "introduction/messages.h"

#include <netinet/in.h>

#include <algorithm>
#include <iterator>

namespace introduction
{
/// As the sockets of the operating system want it: IPv6 ones, for IPv4 too.
inline sockaddr_in6 socketAddress(const Address &address)
{
    sockaddr_in6 native = {};
    native.sin6_family = AF_INET6;
    native.sin6_port = htons(address.port);
    std::copy(address.ip.cbegin(), address.ip.cend(), std::begin(native.sin6_addr.s6_addr));
    return native;
}

inline Address fromSocketAddress(const sockaddr_in6 &native)
{
    Address address;
    std::copy(std::begin(native.sin6_addr.s6_addr), std::end(native.sin6_addr.s6_addr), address.ip.begin());
    address.port = ntohs(native.sin6_port);
    return address;
}
} // namespace introduction
