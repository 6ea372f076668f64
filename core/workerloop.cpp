// The worker loop: the whole run time of the daemon. Duties that block hold up the turn; datagrams wait in the sockets.

#include "core/clock.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"

#include <QCoreApplication>
#include <QThread>

using namespace std::chrono_literals;

namespace
{
constexpr auto idlePause = 10ms;     // at most 100 turns a second: the idle load, and the latency of a datagram
constexpr auto settingsPeriod = 20s; // how soon a changed setting is noticed
} // namespace

void UDPHandler::work()
{
    hostcalls::logDebug(QStringLiteral("Worker loop started"));
    for (;;)
        turn();
}

void UDPHandler::turn()
{
    QCoreApplication::processEvents();
    QThread::msleep(idlePause.count());
    getRemoteClients();
    attendPeers();
    forwardNextRequest();
    sendNextPacket();
    dropExpiredPackets();
    if (hasElapsed(lastSettingsLoad, settingsPeriod))
        loadSettings();
    if (hasElapsed(lastServerUpdate, std::chrono::seconds(serverUpdateInterval)))
        registerWithServer();
}
