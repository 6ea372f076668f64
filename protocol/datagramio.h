#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QUdpSocket>

#include <chrono>

namespace datagram
{
/// How long a send may wait for its socket to have written, in ms. The caller stands still meanwhile.
constexpr int writeWait = std::chrono::milliseconds(std::chrono::seconds(30)).count();

/// The next datagram of a socket and where it came from; a null array when there is none.
/// Tries the read even where nothing seems to wait: the kernel drops a datagram with a bad checksum after it has woken
/// the reader, and unless a read is tried then, the socket's notification stays off and never wakes it again.
inline QByteArray take(QUdpSocket *socket, QHostAddress *address, quint16 *port)
{
    constexpr int longest = 65536; // for one that arrives between the question and the read
    QByteArray data(socket->hasPendingDatagrams() ? static_cast<int>(socket->pendingDatagramSize()) : longest,
                    Qt::Uninitialized);
    const qint64 length = socket->readDatagram(data.data(), data.size(), address, port);
    if (length < 0)
        return QByteArray();
    data.resize(static_cast<int>(length));
    return data;
}
} // namespace datagram
