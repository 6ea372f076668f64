// How the duties over the packet queue grow with its length.

#include "bench/relaybox.h"

namespace
{
void overQueue(benchmark::State &state, const QString &duty, const std::function<void(RelayBox &)> &work)
{
    RelayBox box(1);
    box.queueConfirmed(static_cast<int>(state.range(0)));
    std::vector<double> samples;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        samples.push_back(figures::timed([&] { work(box); }));
        state.SetIterationTime(samples.back());
    }
    figures::grows(duty, QStringLiteral("packets"), state.range(0), figures::median(samples));
}

void sendDuty(benchmark::State &state)
{
    overQueue(state, QStringLiteral("search for the first unconfirmed"),
              [](RelayBox &box) { box.relay->sendNextPacket(); });
}
FIGURE(sendDuty, 200)->Arg(0)->Arg(600)->Arg(6000);

void expiry(benchmark::State &state)
{
    overQueue(state, QStringLiteral("expiry sweep"), [](RelayBox &box) { box.relay->dropExpiredPackets(); });
}
FIGURE(expiry, 200)->Arg(0)->Arg(600)->Arg(6000);

void duplicateTest(benchmark::State &state)
{
    const QString peer = QString::fromLatin1(uuidOfPeer(0));
    overQueue(state, QStringLiteral("duplicate test"),
              [&peer](RelayBox &box) { benchmark::DoNotOptimize(box.relay->isKnownRequest(2, peer)); });
}
FIGURE(duplicateTest, 200)->Arg(0)->Arg(600)->Arg(6000);

void confirmation(benchmark::State &state)
{
    UDPHandler::RemoteClient peer;
    peer.remoteUuid = QString::fromLatin1(uuidOfPeer(0));
    const int index = static_cast<int>(state.range(0)) - 1; // the packet at the end
    const QByteArray data =
        Peer(uuidOfPeer(0)).confirmation(1, 1, static_cast<quint32>(std::max(index, 0)), QByteArray(6999, 'x'));
    overQueue(state, QStringLiteral("confirmation"), [&](RelayBox &box) { box.relay->takeConfirmation(peer, data); });
}
FIGURE(confirmation, 200)->Arg(0)->Arg(600)->Arg(6000);
} // namespace
