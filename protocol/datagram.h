#pragma once

#include <QByteArray>
#include <QString>
#include <QtEndian>

/// The first byte of every plaintext datagram on the main UDP socket.
enum class DatagramKind : quint8 {
    ConnectRequest = 1,
    KeepAlive = 3,
    DataPacket = 9,
    Confirmation = 10,
};

/// Byte layouts. Integers are unsigned and big-endian; a UUID is its 38 ASCII characters with braces, sender first.
/// What stands last ends with the datagram. Offsets are those of the plaintext: the cipher covers the whole datagram.
namespace datagram
{
constexpr int uuidLength = 38;

/// Integer at `offset`, 0 where the datagram ends before it.
template <typename Integer> Integer readInteger(const QByteArray &data, int offset)
{
    if (data.size() < offset + static_cast<int>(sizeof(Integer)))
        return 0;
    return qFromBigEndian<Integer>(data.constData() + offset);
}

/// ConnectRequest and KeepAlive between a peer and the box (77 bytes):
///   0 kind | 1 sender UUID | 39 receiver UUID
QByteArray link(DatagramKind kind, const QString &sender, const QString &receiver);

/// How the box makes itself known, to the rendezvous server (type 1, 43 bytes) and in front of a discovery reply
/// (type 2):
///   0 type | 1 TCP port | 3 UDP port | 5 the box's UUID
QByteArray announcement(quint8 type, quint16 tcpPort, quint16 udpPort, const QString &uuid);

/// Request of a peer, a DataPacket of 81 bytes and the HTTP request:
///   0 kind | 1 message id | 3 socket id | 5 sender UUID | 43 receiver UUID | 81 HTTP request
constexpr int messageIdOffset = 1;
constexpr int socketIdOffset = 3;
constexpr int requestPayloadOffset = 81;
QByteArray request(quint16 messageId, quint16 socketId, const QString &sender, const QString &receiver,
                   const QByteArray &httpRequest);

/// Confirmation of `request` (81 bytes), which repeats the request's two ids whatever they are:
///   0 kind | 1 message id | 3 socket id | 5 sender UUID | 43 receiver UUID
QByteArray requestReceipt(const QByteArray &request, const QString &sender, const QString &receiver);

/// Response packet, a DataPacket of 89 bytes and up to 7000 bytes of the response:
///   0 kind | 1 message id | 3 socket id | 5 length of the response (32 bits) | 9 number of packets | 11 index
///   13 sender UUID | 51 receiver UUID | 89 slice of the response
constexpr int maxSlice = 7000;
constexpr int responsePayloadOffset = 89;
struct ResponseHeader {
    quint16 messageId;
    quint16 socketId;
    quint32 totalLength;
    quint16 count;
    quint16 index;
};
QByteArray responsePacket(const ResponseHeader &header, const QString &sender, const QString &receiver,
                          const QByteArray &slice);
/// The header of a response packet of at least 89 bytes; zeros for what a shorter datagram lacks.
ResponseHeader readResponseHeader(const QByteArray &packet);

/// Confirmation of a response packet by the peer:
///   0 kind | 1 message id | 3 (not read) | 5 number of packets | 7 index | 9 sender UUID | 47 receiver UUID
///   85 checksum of the slice
/// The box reads the integers where they stand and looks for UUIDs and checksum anywhere behind them.
constexpr int confirmedCountOffset = 5;
constexpr int confirmedIndexOffset = 7;
QByteArray packetReceipt(const ResponseHeader &header, const QString &sender, const QString &receiver,
                         const QByteArray &slice);

/// The first 5 lower-case hexadecimal characters of the MD5 digest (RFC 1321) of `slice`.
QByteArray checksum(const QByteArray &slice);
} // namespace datagram
