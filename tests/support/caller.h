#pragma once

// clazy:excludeall=non-pod-global-static

#include "introduction/secrets.h"
#include "tests/support/peer.h"
#include "tests/support/secrets.h"

#include <QMultiMap>
#include <QTest>

const QByteArray serverSecret(32, 's');
const QByteArray boxCallKey(32, 'k');
const QHostAddress lan("192.0.2.1"); // of this machine, and not loopback

inline QByteArray bytesOfUuid(QByteArray text) { return QByteArray::fromHex(text.replace('-', "").mid(1, 32)); }
inline QByteArray tokenOfBox() { return hkdf(serverSecret, "box" + bytesOfUuid(boxUuid)); }
inline QByteArray item(char type, const QByteArray &value) { return QByteArray(1, type) + static_cast<char>(value.size()) + value; }
inline QByteArray address(const QHostAddress &host, quint16 port)
{
    const Q_IPV6ADDR ip = host.toIPv6Address();
    return QByteArray(reinterpret_cast<const char *>(ip.c), 16) + bytesOf(port);
}

/// A peer that calls its box, and computes every byte of it by itself.
struct Caller : Peer {
    explicit Caller(const QByteArray &own = peerUuid) : Peer(own, "192.0.2.1") {}
    introduction::Key key() const
    {
        const QByteArray bytes = hkdf(boxCallKey, "call" + bytesOfUuid(uuid));
        return *introduction::keyOf(bytes.toHex().toStdString());
    }
    std::string context(char whom) const { return (QByteArray(1, whom) + bytesOfUuid(boxUuid) + bytesOfUuid(uuid) + id).toStdString(); }
    /// For the box, with its nonce. How a seal is made has been checked against the standard's own.
    QByteArray sealed(const QByteArray &nonce, const QByteArray &items = QByteArray()) const
    {
        return QByteArray::fromStdString(introduction::seal((item(1, nonce) + items).toStdString(), context(1), key()));
    }
    QByteArray call(const QByteArray &cookie, const QByteArray &sealed) const
    {
        return sign("\xa5" + bytesOfUuid(boxUuid) + bytesOfUuid(uuid) + id + cookie + sealed,
                    hkdf(tokenOfBox(), "peer" + bytesOfUuid(uuid)));
    }
    /// What the server makes of it.
    QByteArray ring(const QByteArray &sealed) const { return ring(sealed, address(lan, socket.localPort())); }
    QByteArray ring(const QByteArray &sealed, const QByteArray &seen) const
    {
        return sign("\xa6" + bytesOfUuid(uuid) + id + QByteArray(8, 'n') + seen + QByteArray(8, 's') + sealed, tokenOfBox());
    }
    /// What the box has sealed for it, by type; empty where it has not.
    QMultiMap<char, QByteArray> opened(const QByteArray &sealed) const
    {
        QMultiMap<char, QByteArray> items;
        const auto unsealed = introduction::unseal(sealed.toStdString(), context(2), key());
        const QByteArray plain = QByteArray::fromStdString(unsealed.value_or(std::string()));
        for (int place = 0; place + 1 < plain.size(); place += 2 + plain.at(place + 1))
            items.insert(plain.at(place), plain.mid(place + 2, plain.at(place + 1)));
        return items;
    }
    /// The next datagram that begins so, within 10 s.
    QByteArray await(const QByteArray &start)
    {
        QByteArray data;
        const bool isThere = QTest::qWaitFor([&] { return (data = receive()).startsWith(start); }, 10000);
        return isThere ? data : QByteArray();
    }
    QByteArray knock() const { return crypt("\x01" + boxUuid + uuid, true); }
    /// How many knocks have come since the last call.
    int knocks()
    {
        int count = 0;
        while (socket.hasPendingDatagrams())
            count += receive() == knock() && senderPort == 5000 ? 1 : 0;
        return count;
    }

    QByteArray id = "call id.";
};

/// A rendezvous server that does what the test wants.
struct FakeServer {
    FakeServer()
    {
        socket.bind(lan, 7000);
        QObject::connect(&socket, &QUdpSocket::readyRead, &socket, [this] { read(); });
    }
    void read()
    {
        while (socket.hasPendingDatagrams()) {
            QByteArray data(2000, '\0');
            data.resize(static_cast<int>(socket.readDatagram(data.data(), data.size(), nullptr, &boxPort)));
            const bool isSigned = data == sign(data.chopped(16), tokenOfBox());
            if (isSigned && data.startsWith('\xa1')) {
                nonce = data.mid(17, 8);
                registrations++;
                send("\xa2" + data.mid(25, 4) + address(lan, boxPort) + relayAge);
            } else if (isSigned) {
                replies += data;
            }
        }
    }
    void send(const QByteArray &data) { socket.writeDatagram(data, lan, boxPort); }
    bool isRegistered()
    {
        return QTest::qWaitFor([this] { return !nonce.isEmpty(); }, 10000);
    }
    /// What the box replies to a ring, the part that is sealed for its peer; the ticket must come back as it was.
    QByteArray reply(const QByteArray &ring)
    {
        replies.clear();
        send(ring);
        const bool isThere = QTest::qWaitFor([this] { return !replies.isEmpty(); }, 10000);
        const QByteArray reply = replies.value(0);
        const bool isRight = isThere && reply.startsWith("\xa7" + bytesOfUuid(boxUuid) + ring.mid(1, 58));
        return isRight ? reply.mid(75).chopped(16) : QByteArray();
    }

    QUdpSocket socket;
    QByteArray relayAge = "\xff\xff";
    QByteArray nonce; // the box's
    quint16 boxPort = 0;
    QByteArrayList replies;
    int registrations = 0;
};
