// A response on its way out: cut into packets, and sent to a peer that confirms at once.

#include "bench/relaybox.h"

#include <QCryptographicHash>

#include <malloc.h>

#include <cstring>

namespace
{
constexpr int responseSize = 10'000'000;

void cutting(benchmark::State &state)
{
    const RelayBox box(1);
    const QByteArray response(responseSize, 'x');
    const auto cut = [&] {
        const double seconds = figures::timed([&] { box.relay->queueResponse(response, box.client(uuidOfPeer(0))); });
        box.relay->udpQueue.clear();
        return seconds;
    };
    const auto copyAndDigest = [&] {
        QByteArray copy;
        return figures::timed([&] {
            copy = QByteArray(response.constData(), response.size());
            QCryptographicHash::hash(copy, QCryptographicHash::Md5);
        });
    };
    figures::within(1.5, QStringLiteral("cutting a response of 10 MB"), QStringLiteral("one `memcpy` and its MD5"),
                    figures::milliseconds, figures::compare(state, cut, copyAndDigest));
}
FIGURE(cutting, 30);

void forgetPeak()
{
    QFile references(QStringLiteral("/proc/self/clear_refs"));
    if (!references.open(QIODevice::WriteOnly) || references.write("5") != 1)
        qFatal("no peak of memory to be had");
}

void ownMemoryWhileCutting(benchmark::State &state)
{
    const RelayBox box(1);
    const auto peak = [&] {
        malloc_trim(0);
        forgetPeak();
        const double before = figures::memory("VmRSS");
        const QByteArray response(responseSize, 'x');
        box.relay->queueResponse(response, box.client(uuidOfPeer(0)));
        const double after = figures::memory("VmHWM");
        box.relay->udpQueue.clear();
        return after - before;
    };
    figures::within(2.5, QStringLiteral("peak memory while cutting, the response among it"),
                    QStringLiteral("the response"), figures::megabytes,
                    figures::compare(state, peak, [] { return double(responseSize); }));
}
FIGURE(ownMemoryWhileCutting, 5);

/// Sends long responses to this port; `confirm` runs between two turns, and its time counts for nothing.
template <typename Confirm> figures::Pair sending(benchmark::State &state, quint16 port, Confirm confirm)
{
    constexpr int packets = 100;    // a sample
    constexpr int patience = 20000; // ms
    RelayBox box(1);
    int id = 0;
    const auto send = [&] {
        double confirming = 0;
        const auto isAllSent = [&] {
            confirming += figures::timed(confirm);
            return box.relay->udpQueue.last().tries > 0;
        };
        box.relay->udpQueue.clear();
        box.queueResponse(packets, ++id, port);
        const double seconds = figures::timed([&] { box.turnUntil(isAllSent, patience); });
        return packets / (seconds - confirming);
    };
    return figures::compare(state, send, [] { return 1 / figures::timed(bareTurn, packets); });
}

const QString bareTurns = QStringLiteral("turns of the bare loop");

void sendingToPromptPeer(benchmark::State &state)
{
    const PromptPeer peer;
    figures::atLeast(0.98, QStringLiteral("packets of a long response, each confirmed before the relay's next turn"),
                     bareTurns, figures::perSecond,
                     sending(state, peer.port(), [&peer] { peer.takePacket(MSG_DONTWAIT); }));
}
FIGURE(sendingToPromptPeer, 7);

void sendingToThread(benchmark::State &state)
{
    const PromptPeer peer;
    const Repeating confirming([&peer] { peer.takePacket(); });
    figures::atLeast(0.98, QStringLiteral("packets of a long response, confirmed at once by another thread"), bareTurns,
                     figures::perSecond, sending(state, peer.port(), [] {}));
}
FIGURE(sendingToThread, 5);
} // namespace
