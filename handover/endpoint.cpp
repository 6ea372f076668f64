// Reads where a peer or the box is.

#include "handover/endpoint.h"

#include "handover/valuecheck.h"

#include <QHostAddress>
#include <QRegularExpression>

namespace
{
Endpoint split(const QString &text)
{
    static const QRegularExpression parts(QStringLiteral("\\A(?:\\[([0-9a-fA-F:.]+(?:%[\\w.-]+)?)\\]|([^\\[\\]:]+))"
                                                         "(?::([0-9]+))?\\z"));
    Endpoint endpoint;
    const auto match = parts.match(text);
    if (QHostAddress(text).protocol() == QAbstractSocket::IPv6Protocol) {
        endpoint.host = text;
    } else if (match.hasMatch()) {
        endpoint.host = match.captured(1) + match.captured(2);
        endpoint.port = Endpoint::portOf(match.captured(3));
        if (!match.captured(3).isEmpty() && endpoint.port == Endpoint::noPort)
            endpoint.host.clear();
    }
    return endpoint;
}

bool isAddress(const QString &text)
{
    const QHostAddress address(text);
    // The shorthands of IPv4, such as 10.1 for 10.0.0.1, are typing errors more often than not.
    return !address.isNull() && (address.protocol() != QAbstractSocket::IPv4Protocol || address.toString() == text);
}

/// Whether it stands for one machine, also when an IPv4 address is written as an IPv6 one.
bool isOfOneMachine(const QHostAddress &address)
{
    bool isIpv4 = false;
    const QHostAddress ipv4(address.toIPv4Address(&isIpv4));
    const QHostAddress &plain = isIpv4 ? ipv4 : address;
    return plain != QHostAddress(QHostAddress::AnyIPv4) && plain != QHostAddress(QHostAddress::AnyIPv6) &&
           plain != QHostAddress(QHostAddress::Broadcast) && !plain.isMulticast();
}

/// Reads HOST:PORT, where HOST is a name or an address; `demand` is what the error begins with.
Endpoint ofHost(const QString &text, const QString &demand)
{
    Endpoint endpoint = split(text);
    if (endpoint.port == Endpoint::noPort || !(isAddress(endpoint.host) || valuecheck::isHostName(endpoint.host)))
        endpoint.error = demand + QStringLiteral(" or [2001:db8::7]:5000, with a port from 1 to 65535");
    return endpoint;
}
} // namespace

Endpoint Endpoint::ofAddress(const QString &text)
{
    Endpoint endpoint = split(text);
    if (!isAddress(endpoint.host))
        endpoint.error = QStringLiteral("the address must be IP or IP:PORT like 192.0.2.7:5000 or [2001:db8::7]:5000, "
                                        "with a port from 1 to 65535");
    return endpoint;
}

Endpoint Endpoint::ofPeer(const QString &text)
{
    Endpoint endpoint = ofAddress(text);
    if (endpoint.error.isEmpty() && !isOfOneMachine(QHostAddress(endpoint.host)))
        endpoint.error = QStringLiteral("the peer's address must be that of one machine, like 192.0.2.7");
    return endpoint;
}

Endpoint Endpoint::ofBox(const QString &text)
{
    return ofHost(text, QStringLiteral("the box's address must be HOST:PORT like box.example.net:5000"));
}

Endpoint Endpoint::ofServer(const QString &text)
{
    return ofHost(text, QStringLiteral("the rendezvous server must be HOST:PORT like relay.example.net:7000"));
}

int Endpoint::portOf(const QString &text)
{
    bool isNumber = false;
    const ushort port = text.toUShort(&isNumber);
    return isNumber && port > 0 ? port : noPort;
}
