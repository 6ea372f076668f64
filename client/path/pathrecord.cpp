// Keeps books only; nothing on the path depends on it.

#include "client/path/pathrecord.h"

#include "introduction/hostaddress.h"

#include <QNetworkInterface>

#include <algorithm>

using introduction::hostOf;

namespace
{
constexpr qint64 pending = -1;
const QLatin1String beingCarried("being carried");
constexpr double roundTripGain = 1.0 / 8; // of a new value in the smoothed one (RFC 6298, 2.3)

/// Whether no router stands between this machine and the host.
bool isOnOwnNetwork(const QHostAddress &host)
{
    const auto interfaces = QNetworkInterface::allInterfaces();
    return std::any_of(interfaces.cbegin(), interfaces.cend(), [&host](const QNetworkInterface &interface) {
        const auto entries = interface.addressEntries();
        return std::any_of(entries.cbegin(), entries.cend(), [&host](const QNetworkAddressEntry &entry) {
            return host.isInSubnet(entry.ip(), entry.prefixLength());
        });
    });
}

PathRecord::Reach directReach(const QHostAddress &host, bool hasPunched)
{
    if (isOnOwnNetwork(host))
        return PathRecord::Reach::SameNetwork;
    if (host.protocol() == QAbstractSocket::IPv6Protocol)
        return PathRecord::Reach::Ipv6;
    return hasPunched ? PathRecord::Reach::Punched : PathRecord::Reach::Direct;
}
} // namespace

void PathRecord::watch(const Way *way)
{
    m_ways.append(way);
    connect(way, &Way::sighted, this, [this](const Sides &sides) {
        const std::vector<introduction::Address> before = m_sides.peer.seen;
        m_sides = sides;
        if (m_sides.peer.seen.empty()) // from a call over TCP
            m_sides.peer.seen = before;
    });
    connect(way, &Way::failed, this, [this, way](const QString &reason) { note(way->name(), reason); });
    connect(way, &Way::found, this, [this, way](const QList<Target> &targets) {
        QStringList places;
        for (const Target &target : targets)
            places.append(introduction::textOf(introduction::addressOf(target.address, target.port)));
        places.removeDuplicates();
        note(way->name(), QStringLiteral("the box should be at ") + places.join(QLatin1String(", ")));
    });
}

void PathRecord::watch(const TurnChannel *carrier)
{
    attempt(beingCarried);
    connect(carrier, &TurnChannel::failed, this, [this](const QString &reason) { note(beingCarried, reason); });
    connect(carrier, &TurnChannel::opened, this, [this, carrier](const QHostAddress &relayed, quint16 port) {
        const QString place = introduction::textOf(introduction::addressOf(relayed, port));
        note(beingCarried, QStringLiteral("%1 carries what comes to %2").arg(carrier->server(), place));
    });
}

void PathRecord::begin()
{
    m_phase = Phase::Opening;
    m_reach = Reach::Nowhere;
    m_attempts.clear();
    m_sides = {};
    m_peerSeen.reset();
    m_roundTrip.reset();
    m_sinceBegin.start();
    for (const Way *way : qAsConst(m_ways))
        attempt(way->name());
}

/// One that is not there yet begins now.
PathRecord::Attempt *PathRecord::find(const QString &what)
{
    const auto found = std::find_if(m_attempts.begin(), m_attempts.end(),
                                    [&what](const Attempt &attempt) { return attempt.what == what; });
    if (found != m_attempts.end())
        return &*found;
    m_attempts.append({what, QStringLiteral("no answer yet"), m_sinceBegin.elapsed(), pending});
    return &m_attempts.last();
}

void PathRecord::attempt(const QString &what)
{
    find(what);
}

void PathRecord::note(const QString &what, const QString &outcome)
{
    Attempt *attempt = find(what);
    if (attempt->outcome == outcome)
        return;
    attempt->outcome = outcome;
    attempt->end = m_sinceBegin.elapsed();
}

void PathRecord::end()
{
    for (Attempt &attempt : m_attempts) {
        if (attempt.end < 0) {
            attempt.outcome = QStringLiteral("no answer");
            attempt.end = m_sinceBegin.elapsed();
        }
    }
}

void PathRecord::open(const QHostAddress &host, quint16 port, bool hasPunched)
{
    m_carrier.clear();
    settle(directReach(hostOf(introduction::addressOf(host, port)), hasPunched), host, port);
}

void PathRecord::openCarried(const QHostAddress &host, quint16 port, const QString &carrier)
{
    m_carrier = carrier;
    note(beingCarried, QStringLiteral("the box answers by %1").arg(carrier));
    settle(Reach::Carried, host, port);
}

void PathRecord::settle(Reach reach, const QHostAddress &host, quint16 port)
{
    m_phase = Phase::Open;
    m_reach = reach;
    m_reason.clear();
    m_box = introduction::addressOf(host, port);
    m_since = QDateTime::currentDateTimeUtc();
    m_openingTime = m_sinceBegin.elapsed();
    m_roundTrip.reset();
    m_knocks = 0;
}

void PathRecord::fail(const QString &reason)
{
    for (const Way *way : qAsConst(m_ways)) {
        const QString why = way->silence();
        if (!why.isEmpty())
            note(way->name(), why);
    }
    m_phase = Phase::Failed;
    m_reach = Reach::Nowhere;
    m_reason = reason;
}

void PathRecord::knocked()
{
    m_knocks++;
    m_sinceKnock.start();
}

/// Only where there is no doubt which knock it is of (RFC 6298, 3).
void PathRecord::echoed()
{
    const auto time = static_cast<double>(m_sinceKnock.nsecsElapsed()) / 1e6;
    if (m_knocks == 1)
        m_roundTrip = m_roundTrip ? *m_roundTrip + roundTripGain * (time - *m_roundTrip) : time;
    m_knocks = 0;
}

Sides PathRecord::sides() const
{
    Sides sides = m_sides;
    if (m_peerSeen && !sides.peer.seen.empty())
        sides.peer.seen.push_back(*m_peerSeen);
    if (m_phase == Phase::Open && !sides.box.seen.empty())
        sides.box.seen.push_back(m_box);
    return sides;
}

QString PathRecord::how() const
{
    const QString host = hostOf(m_box).toString();
    switch (m_reach) {
    case Reach::Carried:
        return QStringLiteral("carried by %1").arg(m_carrier);
    case Reach::SameNetwork:
        return QStringLiteral("on the same network, directly at %1").arg(host);
    case Reach::Ipv6:
        return QStringLiteral("over IPv6, directly at %1").arg(host);
    case Reach::Punched:
        return QStringLiteral("punched through the routers to %1").arg(host);
    case Reach::Direct:
        return QStringLiteral("directly at %1").arg(host);
    case Reach::Nowhere:
        break;
    }
    return QStringLiteral("not at all");
}

QString PathRecord::summary() const
{
    const QString time = QStringLiteral(", after %1 s").arg(static_cast<double>(m_openingTime) / 1000, 0, 'f', 1);
    const Sides both = sides();
    const Translation own = translationOf(both.peer);
    const Translation its = translationOf(both.box);
    const bool isAnyKnown = own != Translation::Unknown || its != Translation::Unknown;
    return how() + time +
           (isAnyKnown && m_reach != Reach::SameNetwork
                ? QStringLiteral("; your router: %1; the box's: %2").arg(textOf(own), textOf(its))
                : QString());
}
