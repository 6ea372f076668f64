#include "client/path/socketpool.h"

#include <QUuid>

#include <sys/resource.h>

#include <algorithm>
#include <functional>

namespace
{
constexpr qintptr spareDescriptors = 300; // for connections of browsers

/// The same at every start, so that what the relay still sends to one that was killed reaches the next one, which
/// confirms it: otherwise everybody would wait until the relay gives it up.
quint16 usualPort(const QString &uuid)
{
    constexpr uint first = 49152; // of the ports that nobody is assigned (RFC 6335)
    constexpr uint count = 16384;
    return static_cast<quint16>(first + QUuid(uuid).data1 % count);
}
} // namespace

bool SocketPool::open(const QString &uuid, quint16 port)
{
    return port == 0 ? add(usualPort(uuid)) || add(0) : add(port);
}

bool SocketPool::add(quint16 port)
{
    auto *socket = new UdpChannel(this);
    if (!socket->open(port)) {
        delete socket;
        return false;
    }
    connect(socket, &Channel::received, this,
            [this, socket](const QByteArray &data, const QHostAddress &from, quint16 senderPort) {
                if (m_sockets.contains(socket))
                    emit received(socket, data, from, senderPort);
            });
    m_sockets.append(socket);
    return true;
}

int SocketPool::grow(int wanted)
{
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const auto most = static_cast<qintptr>(descriptors.rlim_cur) - spareDescriptors;
    while (m_sockets.size() < wanted && m_sockets.constLast()->descriptor() < most && add(0)) {
    }
    return m_sockets.size();
}

void SocketPool::shrink(const Channel *kept)
{
    const auto isSpare = [this, kept](UdpChannel *socket) { return socket != kept && socket != first(); };
    const auto firstSpare = std::stable_partition(m_sockets.begin() + 1, m_sockets.end(), std::not_fn(isSpare));
    std::for_each(firstSpare, m_sockets.end(), [](UdpChannel *socket) { socket->deleteLater(); });
    m_sockets.erase(firstSpare, m_sockets.end());
}
