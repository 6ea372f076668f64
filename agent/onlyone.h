#pragma once

#include <QtGlobal>

#include <sys/socket.h>
#include <sys/un.h>

/// The name of the socket by which an agent of this port is known.
struct AgentName {
    explicit AgentName(quint16 port);

    sockaddr_un address = {};
    socklen_t length;
};

/// One agent for each port on this machine: of two, each would have every other call. An abstract socket's name is free
/// again when its holder ends, however it ends, and is known as far as the port itself.
class OnlyOne
{
public:
    OnlyOne() = default;
    ~OnlyOne();
    OnlyOne(const OnlyOne &) = delete;
    OnlyOne &operator=(const OnlyOne &) = delete;

    /// Whether this is the one; lets go of the port before.
    bool take(quint16 port);
    /// Where other programs of this machine can find it.
    int socket() const { return m_socket; }

private:
    int m_socket = -1;
    quint16 m_port = 0;
};
