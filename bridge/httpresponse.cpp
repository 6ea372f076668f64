// What the web server answers: every read is cut into packets for the peer at the head of the request queue. Runs
// inside the event pumps; never blocks.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"

#include <QRegExp>
#include <QTcpSocket>

bool UDPHandler::chunkedTcpTransfer = false;

void UDPHandler::readyReadTCP()
{
    QByteArray buffer;
    do {
        buffer.append(tcpSocket->readAll());
    } while (tcpSocket->bytesAvailable() >= 1);

    // Only a chunked response may take several reads; any other is complete with its first. The header is looked for
    // anywhere, and the end in the last seven bytes, which leaves room for a line end that a server adds.
    constexpr int terminatorReach = 7;
    if (buffer.contains("Transfer-Encoding: chunked"))
        chunkedTcpTransfer = true;
    if (chunkedTcpTransfer && buffer.right(terminatorReach).contains("0\r\n\r\n"))
        chunkedTcpTransfer = false;

    if (tcpQueue.isEmpty()) {
        if (!chunkedTcpTransfer)
            hostcalls::logWarning(QStringLiteral("No TCP msg in buffer"));
        return;
    }

    queueResponse(buffer, RemoteClient(tcpQueue.constFirst()->client));
    if (!chunkedTcpTransfer) {
        delete tcpQueue.takeFirst();
        tcpSocket->disconnectFromHost();
    }
}

void UDPHandler::queueResponse(const QByteArray &response, const RemoteClient &client)
{
    // One more than the full packets, not a ceiling division, on purpose: a response of exactly 7000 bytes ends with an
    // empty packet. The count has 16 bits and wraps.
    const auto count = static_cast<quint16>(response.size() / datagram::maxSlice + 1);
    hostcalls::logDebug(QStringLiteral("Packet size of ") + QString::number(response.size(), 10) +
                        QStringLiteral(" splitted into ") + QString::number(count, 10));

    for (int index = 0; index < count; index++) {
        const int offset = index * datagram::maxSlice;
        const bool isLast = index == count - 1;
        const QByteArray slice = response.mid(offset, isLast ? response.size() - offset : datagram::maxSlice);
        const datagram::ResponseHeader header{
            static_cast<quint16>(currentRequestId), static_cast<quint16>(currentSocket),
            static_cast<quint32>(response.size()), count, static_cast<quint16>(index)};
        UdpMessage packet;
        packet.client = client;
        packet.data = datagram::responsePacket(header, uuid, client.remoteUuid, slice);
        packet.msgId = currentRequestId;
        packet.package = index;
        packet.checksum = calculateChecksum(slice); // what the peer can compute from what it holds
        udpQueue.append(packet);
    }
}

/// Length that a response's header announces; 0 for a response without that header, -1 for what is no response.
int UDPHandler::getHttpContentLength(const QString &text) const
{
    QRegExp header(QStringLiteral("Content-Length: (\\d+)\r\n"));
    if (header.indexIn(text) >= 0)
        return header.cap(1).toInt(nullptr, 10);
    return text.startsWith(QLatin1String("HTTP")) ? 0 : -1;
}
