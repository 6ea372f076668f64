#include "agent/onlyone.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>

AgentName::AgentName(quint16 port)
{
    const std::string text = "nat-relay-agent-" + std::to_string(port);
    address.sun_family = AF_UNIX;
    std::copy(text.cbegin(), text.cend(), address.sun_path + 1); // behind a zero byte: no file
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
}

OnlyOne::~OnlyOne()
{
    if (m_socket >= 0)
        close(m_socket);
}

bool OnlyOne::take(quint16 port)
{
    if (m_socket >= 0 && port == m_port)
        return true;
    if (m_socket >= 0)
        close(m_socket);
    m_port = port;
    m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const AgentName name(port);
    return bind(m_socket, reinterpret_cast<const sockaddr *>(&name.address), name.length) == 0;
}
