// Builders and readers of the byte layouts.

#include "protocol/datagram.h"

#include <QCryptographicHash>

namespace
{
constexpr int checksumLength = 5;

template <typename Integer> void append(QByteArray *data, Integer value)
{
    const Integer wire = qToBigEndian(value);
    data->append(reinterpret_cast<const char *>(&wire), sizeof wire);
}

QByteArray begin(DatagramKind kind)
{
    return QByteArray(1, static_cast<char>(kind));
}
} // namespace

QByteArray datagram::link(DatagramKind kind, const QString &sender, const QString &receiver)
{
    return begin(kind).append(sender.toUtf8()).append(receiver.toUtf8());
}

QByteArray datagram::announcement(quint8 type, quint16 tcpPort, quint16 udpPort, const QString &uuid)
{
    QByteArray data(1, static_cast<char>(type));
    append(&data, tcpPort);
    append(&data, udpPort);
    return data.append(uuid.toUtf8());
}

QByteArray datagram::request(quint16 messageId, quint16 socketId, const QString &sender, const QString &receiver,
                             const QByteArray &httpRequest)
{
    QByteArray data = begin(DatagramKind::DataPacket);
    append(&data, messageId);
    append(&data, socketId);
    return data.append(sender.toUtf8()).append(receiver.toUtf8()).append(httpRequest);
}

QByteArray datagram::requestReceipt(const QByteArray &request, const QString &sender, const QString &receiver)
{
    constexpr int idsLength = 4;
    return begin(DatagramKind::Confirmation)
        .append(request.mid(messageIdOffset, idsLength))
        .append(sender.toUtf8())
        .append(receiver.toUtf8());
}

QByteArray datagram::responsePacket(const ResponseHeader &header, const QString &sender, const QString &receiver,
                                    const QByteArray &slice)
{
    QByteArray data;
    data.reserve(responsePayloadOffset + slice.size());
    data.append(begin(DatagramKind::DataPacket));
    append(&data, header.messageId);
    append(&data, header.socketId);
    append(&data, header.totalLength);
    append(&data, header.count);
    append(&data, header.index);
    return data.append(sender.toUtf8()).append(receiver.toUtf8()).append(slice);
}

datagram::ResponseHeader datagram::readResponseHeader(const QByteArray &packet)
{
    constexpr int totalLengthOffset = 5;
    constexpr int countOffset = 9;
    constexpr int indexOffset = 11;
    return {readInteger<quint16>(packet, messageIdOffset), readInteger<quint16>(packet, socketIdOffset),
            readInteger<quint32>(packet, totalLengthOffset), readInteger<quint16>(packet, countOffset),
            readInteger<quint16>(packet, indexOffset)};
}

QByteArray datagram::packetReceipt(const ResponseHeader &header, const QString &sender, const QString &receiver,
                                   const QByteArray &slice)
{
    QByteArray data = begin(DatagramKind::Confirmation);
    append(&data, header.messageId);
    append(&data, header.socketId);
    append(&data, header.count);
    append(&data, header.index);
    return data.append(sender.toUtf8()).append(receiver.toUtf8()).append(checksum(slice));
}

QByteArray datagram::checksum(const QByteArray &slice)
{
    return QCryptographicHash::hash(slice, QCryptographicHash::Md5).toHex().left(checksumLength);
}
