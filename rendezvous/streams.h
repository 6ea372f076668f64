#pragma once

#include "rendezvous/introducer.h"

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The same messages over TCP, for peers on networks that let no UDP out: each behind its length in 16 bits, big-endian
/// (RFC 4571). Whoever sends anything else, or reads too slowly, is cut off.
class Streams
{
public:
    /// In a Place: by TCP. What its address has no connection to is lost, as a datagram would be.
    static constexpr std::uint8_t socket = 255;

    /// Throws std::system_error with a text that says which address cannot be used.
    explicit Streams(const std::vector<std::string> &listen);
    ~Streams();
    Streams(const Streams &) = delete;
    Streams &operator=(const Streams &) = delete;

    /// Readable when there is something to serve().
    int descriptor() const { return m_events; }
    /// Accepts and reads what waits, some of it; `take` is called with each message.
    void serve(Moment now, const std::function<void(const Place &from, std::string_view bytes)> &take);
    void send(const Datagram &datagram);
    /// Cuts off who was silent for too long: call it now and then.
    void closeSilent(Moment now);

private:
    struct Connection {
        int descriptor;
        introduction::Address peer;
        Moment seen;
        std::string unread; // the beginning of a message
    };
    using Connections = std::list<Connection>;

    void accept(int listener, Moment now);
    void makeRoom(const introduction::Address &comer);
    bool read(Connection *connection, const std::function<void(const Place &from, std::string_view bytes)> &take);
    void close(Connections::iterator connection);
    Connections::iterator find(int descriptor);

    int m_events;
    std::vector<int> m_listeners;
    Connections m_connections; // who was silent longest first
};
