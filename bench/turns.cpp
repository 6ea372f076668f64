// The pace: turns of the relay against a bare loop with the same pause, and the work in a turn beside its pause.

#include "bench/relaybox.h"

#include <ctime>

namespace
{
/// Turns per second from one read of the store to the next, so that every sample holds one read.
double turnsOfOneSecond(const RelayBox &box, int *turns)
{
    constexpr int patience = 1000; // turns
    const QDateTime lastRead = box.relay->lastRemoteClientsLoad;
    *turns = 0;
    const double seconds = figures::timed([&] {
        while (box.relay->lastRemoteClientsLoad == lastRead && *turns < patience) {
            box.relay->turn();
            (*turns)++;
        }
    });
    return *turns / seconds;
}

figures::Pair pace(benchmark::State &state, int peers, ConnectionStatus status, int packets)
{
    RelayBox box(peers, status);
    box.queueConfirmed(packets);
    int turns = 100;
    return figures::compare(
        state,
        [&] {
            box.relay->lastRemoteClientsLoad = QDateTime::currentDateTime();
            return turnsOfOneSecond(box, &turns);
        },
        [&] { return 1 / figures::timed(bareTurn, turns); });
}

const QString bareLoop = QStringLiteral("bare loop of `processEvents` and `msleep(10)`");

void idleTurns(benchmark::State &state)
{
    figures::atLeast(0.98, QStringLiteral("turns, idle"), bareLoop, figures::perSecond,
                     pace(state, 1, ConnectionStatus::Disconnected, 0));
}
FIGURE(idleTurns, 7);

void turnsWithPeersDisconnected(benchmark::State &state)
{
    figures::atLeast(0.90, QStringLiteral("turns, 10,000 peers disconnected, 6,000 packets confirmed"), bareLoop,
                     figures::perSecond, pace(state, 10000, ConnectionStatus::Disconnected, 6000));
}
FIGURE(turnsWithPeersDisconnected, 9);

void turnsWithPeersConnected(benchmark::State &state)
{
    figures::atLeast(0.90, QStringLiteral("turns, 10,000 peers connected, 6,000 packets confirmed"), bareLoop,
                     figures::perSecond, pace(state, 10000, ConnectionStatus::Connected, 6000));
}
FIGURE(turnsWithPeersConnected, 9);

/// Seconds of this thread's own work.
double busySeconds()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// The work of a turn in which the store is not read, after `prepare`.
template <typename Prepare>
void turnWork(benchmark::State &state, const RelayBox &box, const QString &duty, const QString &what, Prepare prepare)
{
    std::vector<double> samples;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        prepare();
        box.relay->lastRemoteClientsLoad = QDateTime::currentDateTime();
        const double before = busySeconds();
        box.relay->turn();
        samples.push_back(busySeconds() - before);
        state.SetIterationTime(samples.back());
    }
    figures::grows(duty, what, state.range(0), figures::median(samples));
}

void turnWorkByPeers(benchmark::State &state, ConnectionStatus status, const QString &duty)
{
    const RelayBox box(static_cast<int>(state.range(0)), status);
    turnWork(state, box, duty, QStringLiteral("peers"), [] {});
}

void workPeersDisconnected(benchmark::State &state)
{
    turnWorkByPeers(state, ConnectionStatus::Disconnected, QStringLiteral("turn, all disconnected"));
}
FIGURE(workPeersDisconnected, 40)->RangeMultiplier(10)->Range(10, 10000);

void workPeersConnected(benchmark::State &state)
{
    turnWorkByPeers(state, ConnectionStatus::Connected, QStringLiteral("turn, all connected"));
}
FIGURE(workPeersConnected, 40)->RangeMultiplier(10)->Range(10, 10000);

void workOnePeerConnecting(benchmark::State &state)
{
    const RelayBox box(static_cast<int>(state.range(0)));
    auto &peer = box.client(uuidOfPeer(0));
    peer.status = static_cast<quint8>(ConnectionStatus::Connecting);
    peer.lastAttempt = QDateTime::currentDateTime(); // the next burst is a minute away
    turnWork(state, box, QStringLiteral("turn, one connecting"), QStringLiteral("peers"), [] {});
}
FIGURE(workOnePeerConnecting, 40)->RangeMultiplier(10)->Range(10, 10000);

void workOnePeerSilent(benchmark::State &state)
{
    const RelayBox box(static_cast<int>(state.range(0)));
    turnWork(state, box, QStringLiteral("turn, one times out"), QStringLiteral("peers"), [&box] {
        auto &peer = box.client(uuidOfPeer(0));
        peer.status = static_cast<quint8>(ConnectionStatus::Connected);
        peer.lastSeen = ago(61000);
    });
}
FIGURE(workOnePeerSilent, 40)->RangeMultiplier(10)->Range(10, 10000);

void workPacketsConfirmed(benchmark::State &state)
{
    RelayBox box(1);
    box.queueConfirmed(static_cast<int>(state.range(0)));
    turnWork(state, box, QStringLiteral("turn, all confirmed"), QStringLiteral("packets"), [] {});
}
FIGURE(workPacketsConfirmed, 40)->Arg(0)->Arg(600)->Arg(6000);
} // namespace
