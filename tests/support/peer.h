#pragma once

#include <QUdpSocket>

#include <openssl/evp.h>

#include <functional>

const QByteArray boxUuid("{B0B0B0B0-0000-4000-8000-00000000000B}");
const QByteArray peerUuid("{aaaaaaaa-1111-4111-8111-aaaaaaaaaaaa}");
const QByteArray otherUuid("{cccccccc-2222-4222-8222-cccccccccccc}");
const QByteArray strangerUuid("{dddddddd-3333-4333-8333-dddddddddddd}");
const QByteArray testKey = QByteArray::fromHex("2b7e151628aed2a6abf7158809cf4f3c");
const QByteArray testIv = QByteArray::fromHex("a0a1a2a3a4a5a6a7a8a9aaabacadaeaf");

/// A peer that computes every byte by itself, with another crypto library than the relay's.
class Peer
{
public:
    explicit Peer(QByteArray uuid = peerUuid) : m_uuid(std::move(uuid)) { m_socket.bind(QHostAddress(QHostAddress::LocalHost), 0); }

    static QByteArray number(quint32 value, int bytes)
    {
        QByteArray wire;
        for (int i = bytes - 1; i >= 0; i--)
            wire.append(static_cast<char>(value >> (8 * i)));
        return wire;
    }
    static QByteArray crypt(const QByteArray &text, bool encrypt)
    {
        QByteArray out(text.size(), '\0');
        int length = 0;
        EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
        EVP_CipherInit_ex(context, EVP_aes_128_cfb128(), nullptr, reinterpret_cast<const uchar *>(testKey.constData()),
                          reinterpret_cast<const uchar *>(testIv.constData()), encrypt ? 1 : 0);
        EVP_CipherUpdate(context, reinterpret_cast<uchar *>(out.data()), &length,
                         reinterpret_cast<const uchar *>(text.constData()), text.size());
        EVP_CIPHER_CTX_free(context);
        return out;
    }
    static QByteArray md5(const QByteArray &data)
    {
        QByteArray digest(16, '\0');
        EVP_Digest(data.constData(), static_cast<size_t>(data.size()), reinterpret_cast<uchar *>(digest.data()), nullptr,
                   EVP_md5(), nullptr);
        return digest.toHex();
    }

    QByteArray link(char kind, const QByteArray &to = boxUuid) const { return QByteArray(1, kind) + m_uuid + to; }
    QByteArray request(quint16 id, quint16 socket, const QByteArray &payload) const
    {
        return QByteArray(1, 9) + number(id, 2) + number(socket, 2) + m_uuid + boxUuid + payload;
    }
    QByteArray confirmation(quint16 id, quint16 count, quint16 index, const QByteArray &slice) const
    {
        return QByteArray(1, 10) + number(id, 2) + number(0, 2) + number(count, 2) + number(index, 2) + m_uuid + boxUuid +
               md5(slice).left(5);
    }

    void sendPlain(const QByteArray &data, quint16 port = 5000) { m_socket.writeDatagram(data, QHostAddress(QHostAddress::LocalHost), port); }
    void send(const QByteArray &plain) { sendPlain(crypt(plain, true)); }
    /// The next datagram as it came; a null array when there is none.
    QByteArray receiveRaw()
    {
        if (!m_socket.hasPendingDatagrams())
            return QByteArray();
        QByteArray data(static_cast<int>(m_socket.pendingDatagramSize()), '\0');
        m_socket.readDatagram(data.data(), data.size());
        return data;
    }
    QByteArray receive() { return crypt(receiveRaw(), false); }
    quint16 port() const { return m_socket.localPort(); }

private:
    QByteArray m_uuid;
    QUdpSocket m_socket;
};
