#pragma once

#include <QString>

/// An address or a host's name, and a UDP port there.
struct Endpoint {
    static constexpr int noPort = -1;

    QString error; // not empty: one line that says what would be right
    QString host;
    int port = noPort;

    /// Reads IP or IP:PORT, an IPv6 address with a port in brackets.
    static Endpoint ofAddress(const QString &text);

    /// The same, and the address is that of one machine.
    static Endpoint ofPeer(const QString &text);

    /// Reads HOST:PORT, where HOST is a name or an address.
    static Endpoint ofBox(const QString &text);

    /// The same, of a rendezvous server.
    static Endpoint ofServer(const QString &text);

    /// A port from 1 to 65535, or noPort when the text is none.
    static int portOf(const QString &text);
};
