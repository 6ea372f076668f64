// A call of a peer, through one node of the rendezvous server and through two with a NATS server between them, all of
// them as they are run: how soon the box hears of it, and how many a core can serve.

#include "bench/figures.h"
#include "introduction/messages.h"
#include "introduction/socketaddress.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <memory>
#include <vector>

using namespace introduction;

namespace
{
constexpr int samples = 5;
constexpr int callsOfPeer = 5; // in a sample; all samples together stay within the limits of an address and of a box
constexpr int lanes = 200;
constexpr std::uint16_t port = 7000;

Address loopback(std::uint8_t network, std::uint8_t number, std::uint16_t ofPort)
{
    return {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, network, 0, number}, ofPort};
}

/// A box or a peer, which waits for what its node sends.
class Socket
{
public:
    Socket(const Address &own, const Address &node) : m_socket(socket(AF_INET6, SOCK_DGRAM, 0))
    {
        const timeval patience{2, 0};
        const auto from = socketAddress(own);
        const auto to = socketAddress(node);
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        if (bind(m_socket, reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0 ||
            connect(m_socket, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            qFatal("no socket");
    }
    ~Socket() { close(m_socket); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    void send(const std::string &bytes) const { ::send(m_socket, bytes.data(), bytes.size(), 0); }
    template <typename Message> std::optional<Message> next() const
    {
        std::array<char, longestHanded> bytes{};
        const ssize_t length = recv(m_socket, bytes.data(), bytes.size(), 0);
        return read<Message>({bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))});
    }

private:
    const int m_socket;
};

/// A box and a peer, each at an address of its own.
class Lane
{
public:
    Lane(const Key &secret, std::uint8_t network, int number, const Address &nodeOfBox, const Address &nodeOfPeer)
        : m_box{network, static_cast<std::uint8_t>(number)}, m_token(boxToken(secret, m_box)),
          boxEnd(loopback(network, static_cast<std::uint8_t>(number), 0), nodeOfBox),
          peerEnd(loopback(static_cast<std::uint8_t>(network + 1), static_cast<std::uint8_t>(number), 0), nodeOfPeer)
    {
        boxEnd.send(encode(Registration{m_box, 1, 1, 0}, m_token));
        const auto challenge = boxEnd.next<Challenge>();
        boxEnd.send(encode(Registration{m_box, 1, 1, challenge ? challenge->cookie : 0}, m_token));
        if (!boxEnd.next<Registered>())
            qFatal("a box is not registered");
    }

    /// Asks for a cookie, for a call of a new peer or of the one before.
    void knock(bool isNew)
    {
        m_peer = isNew ? Uuid{++m_peers} : m_peer;
        m_call = {m_box, m_peer, freshNumber(), 0, std::string(150, 's')};
        peerEnd.send(encode(m_call, peerToken(m_token, m_peer)));
    }
    void call()
    {
        const auto challenge = peerEnd.next<Challenge>();
        m_call.cookie = challenge ? challenge->cookie : 0;
        peerEnd.send(encode(m_call, peerToken(m_token, m_peer)));
    }
    /// Whether the call has come, which the box replies to.
    bool reply() const
    {
        const auto ring = boxEnd.next<Ring>();
        if (ring)
            boxEnd.send(encode(Reply{m_box, ring->peer, ring->id, ring->ticket, std::string(150, 's')}, m_token));
        return ring.has_value();
    }
    bool isAnswered() const { return peerEnd.next<Answer>().has_value(); }

private:
    const Uuid m_box;
    const Key m_token;
    std::uint8_t m_peers = 0;
    Uuid m_peer{};
    Call m_call;

public:
    const Socket boxEnd;
    const Socket peerEnd;
};

/// Two nodes and a NATS server, and peers that call boxes at the node of their own or at the other.
class Server
{
public:
    Server()
    {
        QFile file(m_folder.filePath(QStringLiteral("conf")));
        if (!file.open(QIODevice::WriteOnly))
            qFatal("cannot write");
        const Key secret = freshKey();
        file.write("host=x\nmetrics=\ncluster=nats://127.0.0.1:4222\nsecret=" +
                   QByteArray::fromStdString(textOf(secret)) + '\n');
        file.close();
        start(QStringLiteral("nats-server"), {QStringLiteral("-a"), QStringLiteral("127.0.0.1")}, "Server is ready");
        for (const char *listen : {"127.0.0.1:7000", "127.1.0.1:7000"})
            start(QStringLiteral(BUILD_DIR "/nat-rendezvousd"),
                  {QStringLiteral("--config"), file.fileName(), QStringLiteral("--listen"), QString::fromLatin1(listen),
                   QStringLiteral("serve")},
                  "connected to NATS");
        const Address one = loopback(0, 1, port);
        for (int number = 1; number <= lanes; number++) {
            near.push_back(std::make_unique<Lane>(secret, 10, number, one, one));
            far.push_back(std::make_unique<Lane>(secret, 20, number, one, loopback(1, 1, port)));
        }
        usleep(500'000); // NATS has heard of all of them by then, or the first call shows it
    }
    ~Server()
    {
        for (const auto &process : m_processes) {
            process->kill();
            process->waitForFinished();
        }
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    using Lanes = std::vector<std::unique_ptr<Lane>>;
    Lanes near;
    Lanes far;

    /// Of all its processes.
    double busySeconds() const
    {
        double sum = 0;
        for (const auto &process : m_processes) {
            clockid_t clock = 0;
            timespec time = {};
            if (clock_getcpuclockid(static_cast<pid_t>(process->processId()), &clock) != 0 ||
                clock_gettime(clock, &time) != 0)
                qFatal("no clock");
            sum += static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
        }
        return sum;
    }

private:
    void start(const QString &program, const QStringList &words, const char *ready)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->start(program, words);
        QByteArray log;
        while (!log.contains(ready) && process->waitForReadyRead(20000))
            log += process->readAll();
        if (!log.contains(ready))
            qFatal("%s: %s", qPrintable(program), log.constData());
        m_processes.push_back(std::move(process));
    }

    QTemporaryDir m_folder;
    std::vector<std::unique_ptr<QProcess>> m_processes;
};

/// One call in each lane at a time. Gives the calls that a second of one core serves.
double rate(const Server &server, const Server::Lanes &lanesOf)
{
    const double before = server.busySeconds();
    for (int round = 0; round < callsOfPeer; round++) {
        for (const auto &lane : lanesOf)
            lane->knock(round == 0);
        for (const auto &lane : lanesOf)
            lane->call();
        for (const auto &lane : lanesOf)
            if (!lane->reply())
                qFatal("a call did not come");
        for (const auto &lane : lanesOf)
            if (!lane->isAnswered())
                qFatal("an answer did not come");
    }
    return callsOfPeer * static_cast<double>(lanesOf.size()) / (server.busySeconds() - before);
}

void calls(benchmark::State &state)
{
    const Server server;
    figures::shown(QStringLiteral("calls through two nodes and NATS, a second of one core"),
                   QStringLiteral("through one node, with cookie, call, ring, reply and answer"), figures::perSecond,
                   figures::compare(
                       state, [&] { return rate(server, server.far); }, [&] { return rate(server, server.near); }));
}
FIGURE(calls, samples);

void timeOfCall(benchmark::State &state)
{
    constexpr double wanted = 5e-3;
    const Server server;
    const auto delay = [](const Server::Lanes &lanesOf) {
        std::vector<double> times;
        for (const auto &lane : lanesOf) {
            times.push_back(figures::timed([&] {
                lane->knock(true);
                lane->call();
                if (!lane->reply())
                    qFatal("a call did not come");
            }));
            if (!lane->isAnswered())
                qFatal("an answer did not come");
        }
        return figures::median(times);
    };
    const auto both = figures::compare(
        state, [&] { return delay(server.far); }, [&] { return delay(server.near); });
    const QString what = QStringLiteral("from a peer's first datagram to its box's hearing of it, through ");
    figures::under(wanted, what + QStringLiteral("one node"), figures::milliseconds, both.limit);
    figures::under(wanted, what + QStringLiteral("two and NATS"), figures::milliseconds, both.figure);
}
FIGURE(timeOfCall, samples);
} // namespace
