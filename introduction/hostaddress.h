#pragma once

#include "introduction/messages.h"

#include <QHostAddress>
#include <QString>

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

/// With its port, an IPv6 one in brackets.
inline QString textOf(const Address &address)
{
    const QHostAddress host = hostOf(address);
    const auto form =
        host.protocol() == QAbstractSocket::IPv6Protocol ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2");
    return form.arg(host.toString()).arg(address.port);
}
} // namespace introduction
