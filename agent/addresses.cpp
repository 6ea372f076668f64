#include "agent/addresses.h"

#include <QNetworkInterface>

#include <algorithm>
#include <iterator>

using introduction::Address;

namespace
{
constexpr std::size_t mostAddresses = 8; // in a reply
} // namespace

Address addressOf(const QHostAddress &host, quint16 port)
{
    const Q_IPV6ADDR ip = host.toIPv6Address();
    Address address;
    std::copy(std::begin(ip.c), std::end(ip.c), address.ip.begin());
    address.port = port;
    return address;
}

QHostAddress hostOf(const Address &address)
{
    const QHostAddress host(address.ip.data());
    bool isIpv4 = false;
    const QHostAddress ipv4(host.toIPv4Address(&isIpv4));
    return isIpv4 ? ipv4 : host;
}

QString textOf(const Address &address)
{
    const QHostAddress host = hostOf(address);
    const auto form = host.protocol() == QAbstractSocket::IPv6Protocol ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2");
    return form.arg(host.toString()).arg(address.port);
}

bool mayBeAimedAt(const Address &address)
{
    const QHostAddress host = hostOf(address);
    const bool isThisNetwork = host.isInSubnet(QHostAddress(QStringLiteral("0.0.0.0")), 8) ||
                               host == QHostAddress(QHostAddress::AnyIPv6);
    return address.port != 0 && !isThisNetwork && !host.isLoopback() && !host.isLinkLocal() && !host.isMulticast() &&
           !host.isBroadcast();
}

std::vector<Address> ownAddresses(quint16 port)
{
    std::vector<Address> addresses;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        const auto flags = interface.flags();
        if (!flags.testFlag(QNetworkInterface::IsUp) || flags.testFlag(QNetworkInterface::IsLoopBack))
            continue;
        const auto entries = interface.addressEntries();
        for (const QNetworkAddressEntry &entry : entries) {
            const Address address = addressOf(entry.ip(), port);
            if (mayBeAimedAt(address) && addresses.size() < mostAddresses)
                addresses.push_back(address);
        }
    }
    return addresses;
}
