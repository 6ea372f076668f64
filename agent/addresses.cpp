#include "agent/addresses.h"

#include "introduction/hostaddress.h"

#include <QNetworkInterface>

using introduction::Address;
using introduction::addressOf;
using introduction::hostOf;

namespace
{
constexpr std::size_t mostAddresses = 8; // in a reply
} // namespace

bool mayBeAimedAt(const Address &address)
{
    const QHostAddress host = hostOf(address);
    const bool isThisNetwork =
        host.isInSubnet(QHostAddress(QStringLiteral("0.0.0.0")), 8) || host == QHostAddress(QHostAddress::AnyIPv6);
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
