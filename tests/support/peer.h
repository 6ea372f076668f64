#pragma once

// clazy:excludeall=non-pod-global-static

#include <QUdpSocket>

#include <openssl/evp.h>

const QByteArray boxUuid("{B0B0B0B0-0000-4000-8000-00000000000B}");
const QByteArray peerUuid("{aaaaaaaa-1111-4111-8111-aaaaaaaaaaaa}");
const QByteArray otherUuid("{cccccccc-2222-4222-8222-cccccccccccc}");
const QByteArray strangerUuid("{dddddddd-3333-4333-8333-dddddddddddd}");
const QByteArray testKey = QByteArray::fromHex("2b7e151628aed2a6abf7158809cf4f3c");
const QByteArray testIv = QByteArray::fromHex("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf");

/// A number as it stands on the wire.
inline QByteArray wire(quint32 value, int bytes)
{
    return QByteArray::fromHex(QByteArray::number(value, 16).rightJustified(2 * bytes, '0', true));
}

/// A peer that computes every byte by itself, with another crypto library than the relay's.
struct Peer {
    explicit Peer(const QByteArray &own = peerUuid, const char *address = "127.0.0.1", quint16 port = 0) : uuid(own)
    {
        socket.bind(QHostAddress(address), port);
    }

    static QByteArray crypt(QByteArray text, bool encrypt)
    {
        const auto bytes = [](const QByteArray &data) { return reinterpret_cast<const uchar *>(data.constData()); };
        EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
        EVP_CipherInit_ex(context, EVP_aes_128_cfb128(), nullptr, bytes(testKey), bytes(testIv), encrypt ? 1 : 0);
        int length = text.size();
        EVP_CipherUpdate(context, reinterpret_cast<uchar *>(text.data()), &length, bytes(text), text.size());
        EVP_CIPHER_CTX_free(context);
        return text;
    }
    static QByteArray checksum(const QByteArray &data)
    {
        QByteArray digest(16, '\0');
        EVP_Digest(data.constData(), size_t(data.size()), reinterpret_cast<uchar *>(digest.data()), nullptr, EVP_md5(), nullptr);
        return digest.toHex().left(5);
    }
    QByteArray link(char kind, const QByteArray &to = boxUuid) const { return QByteArray(1, kind) + uuid + to; }
    QByteArray request(quint32 id, quint32 socketId, const QByteArray &payload) const
    {
        return "\x09" + wire(id, 2) + wire(socketId, 2) + uuid + boxUuid + payload;
    }
    QByteArray confirmation(quint32 id, quint32 count, quint32 index, const QByteArray &slice) const
    {
        return "\x0a" + wire(id, 2) + wire(0, 2) + wire(count, 2) + wire(index, 2) + uuid + boxUuid + checksum(slice);
    }
    void sendPlain(const QByteArray &data, quint16 port = 5000) { socket.writeDatagram(data, local, port); }
    void send(const QByteArray &plain) { sendPlain(crypt(plain, true)); }
    /// The next datagram as it came; a null array when there is none.
    QByteArray receive()
    {
        QByteArray data(int(std::max<qint64>(socket.pendingDatagramSize(), 0)), '\0');
        return socket.readDatagram(data.data(), data.size(), nullptr, &senderPort) < 0 ? QByteArray() : data;
    }

    const QHostAddress local{QHostAddress::LocalHost};
    QByteArray uuid;
    QUdpSocket socket;
    quint16 senderPort = 0; // of the datagram received last
};
