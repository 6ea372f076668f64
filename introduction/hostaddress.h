#pragma once

#include "introduction/messages.h"

#include <QHostAddress>

#include <algorithm>

namespace introduction
{
/// Of Qt's addresses, for the programs that use it.
inline Address addressOf(const QHostAddress &host, quint16 port)
{
    Address address;
    const Q_IPV6ADDR bytes = host.toIPv6Address(); // maps IPv4
    std::copy(std::begin(bytes.c), std::end(bytes.c), address.ip.begin());
    address.port = port;
    return address;
}

/// An IPv4 address where it is one.
inline QHostAddress hostOf(const Address &address)
{
    const QHostAddress host(address.ip.data());
    bool isIpv4 = false;
    const quint32 ipv4 = host.toIPv4Address(&isIpv4);
    return isIpv4 ? QHostAddress(ipv4) : host;
}
} // namespace introduction
