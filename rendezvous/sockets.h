#pragma once

#include "rendezvous/boxregistry.h"
#include "rendezvous/introducer.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The server's UDP sockets, read and written many datagrams at a time.
class Sockets
{
public:
    /// Throws std::system_error with a text that says which address cannot be used.
    explicit Sockets(const std::vector<std::string> &listen);
    ~Sockets();
    Sockets(const Sockets &) = delete;
    Sockets &operator=(const Sockets &) = delete;

    /// Descriptors, by the number that a Place has.
    const std::vector<int> &descriptors() const { return m_descriptors; }

    /// Reads what waits at a socket, up to a batch; `take` is called with each datagram, and what it gives is sent.
    void serve(std::uint8_t socket,
               const std::function<std::optional<Datagram>(const Place &from, std::string_view bytes)> &take);
    void send(const std::vector<Datagram> &datagrams);

private:
    std::vector<int> m_descriptors;
    std::vector<char> m_buffer; // for what is read at a time
};

/// Reads ADDRESS:PORT, an IPv6 address in brackets; throws std::invalid_argument for any other text.
introduction::Address addressOf(const std::string &text);
