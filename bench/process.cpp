// The programs as processes: how soon nat-relayd answers, how much of a core and how much memory each of them takes.

#include "bench/relaybox.h"
#include "introduction/secrets.h"

#include <QElapsedTimer>
#include <QProcess>

#include <malloc.h>

#include <ctime>

namespace
{
/// A program as it is run, over the store of a box: the relay, unless another one is named.
class Daemon
{
public:
    explicit Daemon(const QString &name = QStringLiteral("nat-relayd"), const QStringList &words = {})
    {
        m_process.setStandardErrorFile(QProcess::nullDevice());
        m_process.start(QStringLiteral(BUILD_DIR "/") + name, words);
        if (!m_process.waitForStarted())
            qFatal("no program");
        QThread::sleep(3); // the relay reads the store for the second time
    }
    ~Daemon()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    double busySeconds() const
    {
        clockid_t clock = 0;
        timespec time = {};
        if (clock_getcpuclockid(static_cast<pid_t>(m_process.processId()), &clock) != 0 ||
            clock_gettime(clock, &time) != 0)
            qFatal("no clock");
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    }
    double memory() const
    {
        const double bytes = figures::memory("VmRSS", QString::number(m_process.processId()));
        if (bytes <= 0)
            qFatal("the program has ended");
        return bytes;
    }

private:
    QProcess m_process;
};

struct StoppedBox : RelayBox {
    explicit StoppedBox(int peers) : RelayBox(peers) { relay.reset(); }
};

/// Share of a core over ten seconds, sampled once.
template <typename Wait> double share(benchmark::State &state, Wait wait)
{
    const StoppedBox box(1);
    const Daemon daemon;
    double busy = 0;
    double seconds = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        busy = daemon.busySeconds();
        seconds = figures::timed(wait);
        busy = daemon.busySeconds() - busy;
        state.SetIterationTime(seconds);
    }
    return busy / seconds;
}

void idleShare(benchmark::State &state)
{
    figures::under(0.01, QStringLiteral("CPU of one core, idle"), figures::percent,
                   share(state, [] { QThread::sleep(10); }));
}
FIGURE(idleShare, 1);

/// A box whose agent is registered at a server of its own, and nobody calls: what the two of them cost then.
void idleIntroduction(benchmark::State &state)
{
    constexpr unsigned seconds = 60; // three registrations
    StoppedBox box(1);
    const introduction::Key secret{1};
    const auto text = [](const introduction::Key &key) { return QByteArray::fromStdString(introduction::textOf(key)); };
    box.set(
        {{"nat_introduction_server", "127.0.0.1:7000"},
         {"nat_introduction_token", text(introduction::boxToken(secret, *introduction::uuidOf(boxUuid.toStdString())))},
         {"nat_introduction_key", text(introduction::freshKey())}});
    QFile configuration(box.folder.filePath(QStringLiteral("server.conf")));
    if (!configuration.open(QIODevice::WriteOnly) ||
        configuration.write("host=127.0.0.1\nsecret=" + text(secret) + '\n') < 0)
        qFatal("no configuration");
    configuration.close();
    const Daemon server(QStringLiteral("nat-rendezvousd"),
                        {QStringLiteral("--config"), configuration.fileName(), QStringLiteral("serve")});
    const Daemon agent(QStringLiteral("nat-relay-agent"));
    double ofServer = server.busySeconds();
    double ofAgent = agent.busySeconds();
    double time = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        time = figures::timed([] { QThread::sleep(seconds); });
        state.SetIterationTime(time);
    }
    ofServer = server.busySeconds() - ofServer;
    ofAgent = agent.busySeconds() - ofAgent;
    figures::under(0.002, QStringLiteral("CPU of one core, nat-relay-agent, idle"), figures::percent, ofAgent / time);
    figures::under(20e6, QStringLiteral("resident memory of nat-relay-agent"), figures::megabytes, agent.memory());
    figures::under(0.002, QStringLiteral("CPU of one core, nat-rendezvousd, idle"), figures::percent, ofServer / time);
    figures::under(20e6, QStringLiteral("resident memory of nat-rendezvousd"), figures::megabytes, server.memory());
}
FIGURE(idleIntroduction, 1);

void sendingShare(benchmark::State &state)
{
    constexpr int size = 8'000'000; // more than is sent in the time
    const PromptWebServer web("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + randomBytes(size));
    const PromptPeer peer;
    int packets = 0;
    const double busy = share(state, [&] {
        QElapsedTimer timer;
        timer.start();
        peer.request(1);
        while (!timer.hasExpired(10000))
            packets += peer.takePacket().isEmpty() ? 0 : 1;
    });
    figures::under(0.03, QStringLiteral("CPU of one core, sending %1 packets in 10 s").arg(packets), figures::percent,
                   busy);
}
FIGURE(sendingShare, 1);

void latency(benchmark::State &state)
{
    const StoppedBox box(1);
    const Daemon daemon;
    const PromptWebServer web("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    const PromptPeer peer;
    int id = 0;
    const auto exchange = [&] {
        QThread::msleep(static_cast<unsigned long>(id * 3 % 10)); // at any time of the relay's pause
        peer.request(++id);
        return figures::timed([&] {
            for (int tries = 0; tries < 20 && peer.takePacket().isEmpty(); tries++)
                ;
        });
    };
    const auto fourPauses = [] { return figures::timed([] { QThread::msleep(10); }, 4) * 4; };
    figures::withinMilliseconds(5, QStringLiteral("request to first response packet, median"),
                                QStringLiteral("four pauses"), figures::compare(state, exchange, fourPauses));
}
FIGURE(latency, 100);

void memoryOfDaemon(benchmark::State &state)
{
    const int peers = static_cast<int>(state.range(0));
    const StoppedBox box(peers);
    const Daemon daemon;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        state.SetIterationTime(1);
    }
    if (peers == 1)
        figures::under(25e6, QStringLiteral("resident memory at start"), figures::megabytes, daemon.memory());
    else
        figures::under(40e6, QStringLiteral("resident memory with 10,000 peers"), figures::megabytes, daemon.memory());
}
FIGURE(memoryOfDaemon, 1)->Arg(1)->Arg(10000);

/// Serves so many requests and forgets them. The minute for which confirmed packets are kept is passed by moving their
/// time stamps back, and the pause of a turn is left out: neither has to do with memory.
void serve(const RelayBox &box, const PromptPeer &peer, int requests)
{
    constexpr int patience = 60000; // ms
    static std::atomic<int> id = 0;
    std::atomic<int> left = requests;
    const Repeating asking([&] {
        if (left == 0)
            return QThread::msleep(1);
        peer.request(++id);
        QByteArray packet;
        for (int tries = 0; tries < 100 && (packet.isEmpty() || !PromptPeer::isLast(packet)); tries++)
            packet = peer.takePacket();
        left--;
    });
    QElapsedTimer timer;
    timer.start();
    const auto isServed = [&] {
        return left == 0 && std::all_of(box.relay->udpQueue.cbegin(), box.relay->udpQueue.cend(),
                                        [](const UDPHandler::UdpMessage &packet) { return packet.confirmed; });
    };
    while (!isServed() && !timer.hasExpired(patience)) {
        QCoreApplication::processEvents();
        box.relay->forwardNextRequest();
        box.relay->sendNextPacket();
        box.relay->dropExpiredPackets();
    }
    for (auto &packet : box.relay->udpQueue)
        packet.lastSent = ago(61000);
    box.relay->dropExpiredPackets();
    if (!box.relay->udpQueue.isEmpty())
        qFatal("not served");
}

void ownMemoryAfterRequests(benchmark::State &state)
{
    constexpr int round = 300;
    constexpr int rounds = 10;
    const PromptWebServer web("HTTP/1.1 200 OK\r\n\r\n" + randomBytes(20000));
    const RelayBox box(1);
    const PromptPeer peer;
    const auto memory = [] {
        malloc_trim(0); // what is free but not given back comes and goes
        return figures::memory("VmRSS");
    };
    const auto afterOne = [&] {
        serve(box, peer, round);
        return memory();
    };
    const auto afterAll = [&] {
        for (int i = 1; i < rounds; i++)
            serve(box, peer, round);
        return memory();
    };
    figures::within(1.02, QStringLiteral("resident memory after 3,000 requests served, confirmed and expired"),
                    QStringLiteral("after 300"), figures::megabytes, figures::compare(state, afterAll, afterOne));
}
FIGURE(ownMemoryAfterRequests, 1);
} // namespace
