// A burst is 1,600 datagrams. Most guests need none: one knock opens the box's router for them.

#include "agent/bursts.h"

#include "agent/addresses.h"
#include "agent/peerrow.h"
#include "introduction/hostaddress.h"

#include <QTimer>

#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds patience = 1500ms; // for the guest's answer to the knock
constexpr Allowance::Rule guestRule{4s, 3};
// Never more in an hour than twice what may come at once.
constexpr Allowance::Rule guestHourRule{2min, 30};
constexpr Allowance::Rule hourRule{24s, 150};

Route routeOf(const Guest &guest)
{
    // Another one's port is next to a relayed one: nothing goes around it, and all to the one in front.
    const bool isRelayed = guest.relayed && !guest.wantsBurst;
    const introduction::Address &address = isRelayed ? *guest.relayed : guest.seen;
    return {introduction::hostOf(address).toString(), address.port - 1, isRelayed ? -1 : address.port};
}
} // namespace

Bursts::Bursts(std::function<Moment()> now, QObject *parent) : QObject(parent), m_now(std::move(now)) {}

void Bursts::attend(const Guest &guest)
{
    if (!mayBeAimedAt(guest.relayed && !guest.wantsBurst ? *guest.relayed : guest.seen))
        return;
    if (guest.wantsBurst)
        return ask(guest);
    if (!m_waiting.contains(guest.uuid))
        QTimer::singleShot(patience, this, [this, uuid = guest.uuid] { ask(m_waiting.take(uuid)); });
    m_waiting.insert(guest.uuid, guest);
}

void Bursts::ask(const Guest &guest)
{
    const auto peer = introduction::uuidOf(guest.uuid.toStdString());
    const auto row = peer ? PeerRow::of(*peer) : std::nullopt;
    if (!row || row->uuid.isEmpty() || (row->isConnected && !guest.wantsBurst))
        return;
    Used &used = m_used[guest.uuid];
    const Moment now = m_now();
    if (used.atOnce.take(now, guestRule) && used.inAnHour.take(now, guestHourRule) && m_usedByAll.take(now, hourRule))
        askForConnection(row->uuid, routeOf(guest), guest.wantsBurst);
}
