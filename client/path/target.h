#pragma once

#include <QHostAddress>

/// Where the box may be met.
struct Target {
    QHostAddress address;
    quint16 port = 0;
    bool isBehindRouter = true; // which may show another port to each that it meets

    bool operator==(const Target &other) const
    {
        return port == other.port && address.isEqual(other.address, QHostAddress::TolerantConversion);
    }
};
