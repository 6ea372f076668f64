#pragma once

#include "bench/figures.h"
#include "tests/support/box.h"

#include <QLoggingCategory>
#include <QThread>
#include <QUuid>
#include <QtEndian>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <random>
#include <thread>

inline QByteArray uuidOfPeer(int number)
{
    // In no order that the store or the table could follow.
    return QUuid::createUuidV5(QUuid(), QByteArray::number(number)).toByteArray();
}

/// The same bytes every time.
inline QByteArray randomBytes(int size)
{
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp,cert-msc32-c)
    QByteArray data(size, '\0');
    std::generate(data.begin(), data.end(), [&random] { return static_cast<char>(random()); });
    return data;
}

/// A box whose relay, in this process, knows so many peers of one state; what it logs goes nowhere.
struct RelayBox : Box {
    explicit RelayBox(int peers, ConnectionStatus status = ConnectionStatus::Disconnected)
    {
        addPeers(0, peers, status);
        qunsetenv("QT_LOGGING_RULES"); // the levels of a box as it is run
        QLoggingCategory::setFilterRules(QString());
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        start({});
        loadClients(); // the second read brings the ports
        for (auto &peer : relay->remoteClients)
            peer.lastSeen = QDateTime::currentDateTime();
    }
    void addPeers(int first, int end, ConnectionStatus status = ConnectionStatus::Disconnected)
    {
        sql("BEGIN");
        for (int i = first; i < end; i++) // all on loopback, each with an address and a port of its own
            sql("INSERT INTO nat_traverse(remote_uuid, status, remote_ip, udp_port, udp_port_remote) VALUES ('" +
                uuidOfPeer(i) + "', " + QByteArray::number(static_cast<int>(status)) + ", '127.0." +
                QByteArray::number(i / 250) + '.' + QByteArray::number(i % 250 + 1) + "', 4000, " +
                QByteArray::number(4001 + i) + ')');
        sql("COMMIT");
    }
    /// Queues a response of so many packets to a peer that listens on this port.
    void queueResponse(int packets, int id, quint16 port, bool isConfirmed = false)
    {
        UDPHandler::RemoteClient peer;
        peer.host = QHostAddress(QHostAddress::LocalHost);
        peer.udpPortRemote = port;
        peer.remoteUuid = QString::fromLatin1(uuidOfPeer(0));
        relay->currentRequestId = id;
        relay->queueResponse(QByteArray(packets * 7000 - 1, 'x'), peer);
        if (isConfirmed)
            std::for_each(relay->udpQueue.end() - packets, relay->udpQueue.end(), [](UDPHandler::UdpMessage &packet) {
                packet.confirmed = true;
                packet.lastSent = QDateTime::currentDateTime();
            });
    }
    void queueConfirmed(int packets)
    {
        if (packets > 0)
            queueResponse(packets, 1, 1, true);
    }
};

/// What sets the relay's pace, without the relay.
inline void bareTurn()
{
    QCoreApplication::processEvents();
    QThread::msleep(10);
}

inline sockaddr_in loopback(quint16 port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A socket that gives up a read after 100 ms, bound to a port of loopback; 0: any.
struct BareSocket {
    explicit BareSocket(int type, quint16 port = 0) : descriptor(::socket(AF_INET, type, 0))
    {
        const timeval patience{0, 100000};
        const int on = 1;
        const sockaddr_in address = loopback(port);
        if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
            setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
            bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            (type == SOCK_STREAM && listen(descriptor, 8) != 0))
            qFatal("no socket");
    }
    ~BareSocket() { close(descriptor); }
    BareSocket(const BareSocket &) = delete;
    BareSocket &operator=(const BareSocket &) = delete;

    const int descriptor;
};

/// A peer without an event loop, so that it answers at once; for a thread of its own or for another process's relay.
class PromptPeer
{
public:
    quint16 port() const
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        getsockname(m_socket.descriptor, reinterpret_cast<sockaddr *>(&address), &length);
        return ntohs(address.sin_port);
    }
    void send(const QByteArray &plain) const
    {
        const QByteArray wire = Peer::crypt(plain, true);
        const sockaddr_in box = loopback(5000);
        sendto(m_socket.descriptor, wire.constData(), static_cast<size_t>(wire.size()), 0,
               reinterpret_cast<const sockaddr *>(&box), sizeof box);
    }
    void request(int id) const
    {
        send("\x09" + wire(static_cast<quint32>(id), 2) + wire(0, 2) + uuid + boxUuid + "GET / HTTP/1.1\r\n\r\n");
    }
    /// The next packet of a response, confirmed; empty when none came within 100 ms, or something else. With the flag
    /// MSG_DONTWAIT it waits for none.
    QByteArray takePacket(int flags = 0) const
    {
        QByteArray data(65536, Qt::Uninitialized);
        const auto length = recv(m_socket.descriptor, data.data(), static_cast<size_t>(data.size()), flags);
        if (length < 89)
            return {};
        data.resize(static_cast<int>(length));
        data = Peer::crypt(data, false);
        send("\x0a" + data.mid(1, 4) + data.mid(9, 4) + uuid + boxUuid + Peer::checksum(data.mid(89)));
        return data;
    }
    static bool isLast(const QByteArray &packet)
    {
        const auto number = [&packet](int offset) { return qFromBigEndian<quint16>(packet.constData() + offset); };
        return number(11) + 1 == number(9);
    }

    const QByteArray uuid = uuidOfPeer(0);

private:
    BareSocket m_socket{SOCK_DGRAM};
};

/// A thread that does `step` over and over until it goes out of scope.
class Repeating
{
public:
    template <typename Step>
    explicit Repeating(Step step)
        : m_thread([this, step] {
              while (!m_isOver)
                  step();
          })
    {
    }
    ~Repeating()
    {
        m_isOver = true;
        m_thread.join();
    }
    Repeating(const Repeating &) = delete;
    Repeating &operator=(const Repeating &) = delete;

private:
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

/// A web server on port 80 that gives every request the same answer, in one write.
class PromptWebServer
{
public:
    explicit PromptWebServer(QByteArray answer) : m_answer(std::move(answer)), m_serving([this] { serve(); }) {}

private:
    void serve() const
    {
        const int connection = accept(m_listener.descriptor, nullptr, nullptr);
        if (connection < 0)
            return;
        std::array<char, 4096> request;
        if (recv(connection, request.data(), request.size(), 0) > 0) {
            send(connection, m_answer.constData(), static_cast<size_t>(m_answer.size()), MSG_NOSIGNAL);
            while (recv(connection, request.data(), request.size(), 0) > 0) // until the relay closes
                ;
        }
        close(connection);
    }
    QByteArray m_answer;
    BareSocket m_listener{SOCK_STREAM, 80};
    Repeating m_serving;
};
