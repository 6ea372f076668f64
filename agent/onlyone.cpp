#include "agent/onlyone.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>

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
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const std::string text = "nat-relay-agent-" + std::to_string(port);
    std::copy(text.cbegin(), text.cend(), name.sun_path + 1); // behind a zero byte: no file
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    return bind(m_socket, reinterpret_cast<const sockaddr *>(&name), length) == 0;
}
