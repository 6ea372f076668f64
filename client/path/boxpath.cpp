// Knocking is a KeepAlive: unlike a ConnectRequest it drops no traffic, and its echo tells that both directions are
// open. The box's own bursts of ConnectRequests open the way through its router; where one arrives, the answer goes.

#include "client/path/boxpath.h"

#include "client/path/byaddress.h"
#include "client/path/bydiscovery.h"
#include "client/path/byintroduction.h"
#include "introduction/hostaddress.h"
#include "protocol/cipher.h"
#include "protocol/datagram.h"
#include "protocol/uuidscan.h"

#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr auto tickSpacing = 20ms;
constexpr std::chrono::milliseconds answerSpacing = 100ms; // a burst brings up to 800 datagrams at once
constexpr std::chrono::milliseconds echoTime = 1s;
constexpr std::chrono::milliseconds improveLimit = 60s; // through all steps of knocking
constexpr auto carrierRest = 30s;                       // what the box has under way is still carried after a move
constexpr auto measureDelay = 1s; // by then there are no more echoes of the knocks that have opened the path

bool isOver(const QElapsedTimer &timer, std::chrono::milliseconds time)
{
    return !timer.isValid() || timer.hasExpired(time.count());
}
} // namespace

BoxPath::BoxPath(const PeerFile &peer, const Options &options, QObject *parent)
    : QObject(parent), m_uuid(peer.uuid), m_boxUuid(peer.boxUuid), m_key(QByteArray::fromHex(peer.key.toLatin1())),
      m_iv(QByteArray::fromHex(peer.iv.toLatin1())), m_options(options),
      m_plan(options.punch, options.datagramsPerMinute)
{
    connect(&m_sockets, &SocketPool::received, this, &BoxPath::hear);
    if (!m_sockets.open(m_uuid, options.udpPort))
        m_error = QStringLiteral("UDP port %1 cannot be used: another program may have it; choose another one")
                      .arg(options.udpPort);
    else if (!peer.server.isEmpty())
        addWay(new ByIntroduction(peer, m_sockets.first(), this));
    if (!peer.address.isEmpty())
        addWay(new ByAddress(peer.box(), this));
    else if (peer.server.isEmpty())
        addWay(new ByDiscovery(m_uuid, m_boxUuid, this));
    m_ticks.setInterval(tickSpacing);
    m_keepAlive.setInterval(options.keepAlive);
    connect(&m_ticks, &QTimer::timeout, this, &BoxPath::tick);
    connect(&m_keepAlive, &QTimer::timeout, this, &BoxPath::keepAlive);
}

void BoxPath::addWay(Way *way)
{
    m_ways.append(way);
    m_record.watch(way);
    connect(way, &Way::found, this, [this, way](const QList<Target> &targets) {
        m_found[way] = targets;
        aim();
    });
    connect(way, &Way::carrierFound, this, &BoxPath::useCarrier);
    connect(way, &Way::carrierFound, this, &BoxPath::probe);
    connect(way, &Way::failed, this, [this](const QString &reason) {
        if (--m_waysLeft == 0 && m_isOpening)
            giveUp(reason);
    });
}

void BoxPath::aim()
{
    QList<Target> targets;
    for (const QList<Target> &ofWay : qAsConst(m_found)) {
        for (const Target &target : ofWay) {
            if (!targets.contains(target))
                targets.append(target);
        }
    }
    m_plan.aimAt(targets);
    if (m_plan.hasTarget())
        m_record.attempt(m_plan.text());
    for (const Target &target : qAsConst(targets)) {
        if (m_carrier != nullptr)
            m_carrier->permit(target.address);
    }
}

void BoxPath::useCarrier(const TurnAccount &account)
{
    if (m_carrier != nullptr || !(m_isOpening || m_isImproving))
        return;
    auto *carrier = new TurnChannel(account, this);
    m_carrier = carrier;
    m_record.watch(carrier);
    connect(carrier, &Channel::received, this,
            [this, carrier](const QByteArray &data, const QHostAddress &from, quint16 port) {
                hear(carrier, data, from, port);
            });
    connect(carrier, &TurnChannel::opened, this, [this](const QHostAddress &relayed, quint16 port) {
        for (Way *way : qAsConst(m_ways)) {
            if (m_isOpening || m_isImproving)
                way->useRelayed(relayed, port);
        }
    });
    connect(carrier, &TurnChannel::failed, this, [this, carrier](const QString &reason) {
        const bool isRetired = carrier == m_retired;
        drop(carrier);
        if (isRetired)
            return;
        for (Way *way : qAsConst(m_ways)) {
            if (m_isOpening || m_isImproving)
                way->loseCarrier();
        }
        if (m_isOpening)
            emit progress(reason);
    });
    aim();
}

/// It may be reached no longer: another one is asked for. Where it is, the box's packets still come there, and the path
/// is open again at once; without it the relay would repeat them to nobody, and let nothing else through meanwhile.
void BoxPath::retireCarrier()
{
    drop(m_retired);
    if (m_carrier == nullptr || !m_carrier->isOpen())
        return drop(m_carrier);
    m_retired = std::exchange(m_carrier, nullptr);
    m_retired->disconnect(&m_record);
}

void BoxPath::drop(TurnChannel *carrier)
{
    if (carrier == nullptr || (carrier != m_carrier && carrier != m_retired))
        return; // already: each end of the knocking sets a time of its own for it
    TurnChannel *&place = carrier == m_retired ? m_retired : m_carrier;
    place = nullptr;
    if (m_channel == carrier)
        m_channel = nullptr;
    release(carrier);
}

void BoxPath::release(TurnChannel *carrier)
{
    if (carrier == nullptr)
        return;
    carrier->disconnect(this);
    carrier->deleteLater(); // it may be what is telling us something
}

/// Beside all else: what it tells is for a person.
void BoxPath::probe(const TurnAccount &account)
{
    if (m_probe != nullptr)
        return;
    m_probe = std::make_unique<StunProbe>(m_sockets.first(), account.host, account.port, nullptr);
    connect(m_probe.get(), &StunProbe::seen, this,
            [this](const introduction::Address &address) { m_record.setPeerSeen(address); });
}

bool BoxPath::isFresh() const
{
    return !m_isOpening && m_channel != nullptr && !isOver(m_sinceHeard, 2 * m_options.keepAlive + 5s);
}

void BoxPath::send(const QByteArray &plain)
{
    if (m_channel == nullptr)
        return; // what carried has been given up, and nothing else has opened yet
    m_sinceSend.start();
    m_channel->send(cipher::encipher(plain, m_key, m_iv), m_address, m_port);
}

void BoxPath::open()
{
    if (m_isOpening)
        return m_sinceOpening.start(); // under way already, and has its time anew
    stopKnocking();
    m_isOpening = true;
    retireCarrier();
    m_found.clear();
    m_undeciphered = 0;
    m_sinceOpening.start();
    m_plan.begin();
    m_ticks.start();
    m_record.begin();
    m_probe.reset();
    m_waysLeft = m_ways.size();
    for (Way *way : qAsConst(m_ways))
        way->begin();
}

void BoxPath::tick()
{
    if (m_isOpening && isOver(m_sinceOpening, m_options.openLimit))
        return giveUp(silence());
    if (!m_isOpening && isOver(m_sinceOpening, improveLimit))
        return stopKnocking();
    if (!m_plan.hasTarget())
        return;
    if (m_plan.isStepOver())
        nextStep();
    const QList<Knock> knocks = m_plan.due();
    for (const Knock &next : knocks)
        knock(m_sockets.at(next.socket), next.address, next.port);
    // Where the box has knocked, until it answers.
    if (m_isOpening && m_channel != nullptr && isOver(m_sinceKnock, KnockPlan::gentleSpacing))
        knock(m_channel, m_address, m_port);
}

void BoxPath::nextStep()
{
    m_plan.useSockets(m_sockets.grow(m_plan.nextStep()));
    m_record.attempt(m_plan.text());
    for (Way *way : qAsConst(m_ways))
        way->help();
    if (m_isOpening)
        emit progress(QStringLiteral("no answer yet; ") + m_plan.text());
}

void BoxPath::knock(Channel *channel, const QHostAddress &address, quint16 port)
{
    const QByteArray plain = datagram::link(DatagramKind::KeepAlive, m_uuid, m_boxUuid);
    channel->send(cipher::encipher(plain, m_key, m_iv), address, port);
    if (channel != m_channel)
        return;
    m_sinceKnock.start();
    m_record.knocked();
}

void BoxPath::hear(Channel *channel, const QByteArray &data, const QHostAddress &from, quint16 port)
{
    if (channel == m_sockets.first()) {
        if (m_probe != nullptr && m_probe->take(data))
            return;
        for (Way *way : qAsConst(m_ways)) {
            if (way->take(data, from, port))
                return;
        }
    }
    const QByteArray plain = cipher::decipher(data, m_key, m_iv);
    if (datagram::findUuids(plain) == QStringList{m_boxUuid, m_uuid})
        take(channel, plain, from, port);
    else
        m_undeciphered += m_plan.isTarget(from) ? 1 : 0;
}

void BoxPath::take(Channel *channel, const QByteArray &plain, const QHostAddress &from, quint16 port)
{
    const bool isPresent =
        m_isOpening || channel == m_channel || (m_isImproving && m_channel == nullptr && !channel->isDirect());
    const bool isBetter = m_isImproving && channel->isDirect();
    const bool isLate = !channel->isDirect(); // what was under way before a move
    if (!isPresent && !isBetter && !isLate)
        return;
    if (isPresent) {
        m_channel = channel;
        m_address = from;
        m_port = port;
        m_sinceHeard.start();
    }
    const auto kind = static_cast<DatagramKind>(plain.at(0));
    const bool isKnock = kind == DatagramKind::ConnectRequest;
    const bool isEcho = !m_isOpening && isPresent && !isOver(m_sinceSend, echoTime); // of a ConnectRequest of ours
    if (isKnock && !isEcho && (isBetter || isOver(m_sinceKnock, answerSpacing)))
        knock(channel, from, port);
    if (!isKnock && channel == m_channel && channel->isDirect() && m_record.phase() == PathRecord::Phase::Failed) {
        m_keepAlive.start(); // the box had only been busy
        noteOpen();
    }
    if (kind == DatagramKind::KeepAlive && !m_isOpening && channel == m_channel)
        m_record.echoed();
    if (!isKnock)
        takeEcho(channel, from, port);
    if (isPresent || !isKnock) // a knock elsewhere is no answer to anything that was asked
        emit received(plain);
}

/// Both directions are open between here and there.
void BoxPath::takeEcho(Channel *channel, const QHostAddress &from, quint16 port)
{
    if (m_isOpening)
        settle();
    else if (m_isImproving && channel != m_channel && channel->isDirect())
        move(channel, from, port);
}

void BoxPath::settle()
{
    m_isOpening = false;
    m_undeciphered = 0;
    m_keepAlive.start();
    m_isImproving = !m_channel->isDirect();
    if (m_channel == m_retired) // the one that was asked for meanwhile is not needed
        release(std::exchange(m_carrier, std::exchange(m_retired, nullptr)));
    noteOpen();
    if (!m_isImproving)
        stopKnocking();
    tellWays();
    emit opened();
}

/// Before the knocking ends, as it may be what has opened the path.
void BoxPath::noteOpen()
{
    if (m_channel->isDirect()) {
        m_record.note(m_plan.text(), QStringLiteral("the box answers"));
        m_record.open(m_address, m_port, m_plan.hasPunched());
    } else {
        m_record.openCarried(m_address, m_port, m_carrier->server());
    }
    QTimer::singleShot(measureDelay, this, &BoxPath::keepAlive);
}

/// What the box has under way still comes where it was asked from; what is asked from now on comes here.
void BoxPath::move(Channel *channel, const QHostAddress &address, quint16 port)
{
    m_channel = channel;
    m_address = address;
    m_port = port;
    m_sinceHeard.start();
    noteOpen();
    stopKnocking();
    tellWays();
    emit moved();
}

void BoxPath::tellWays()
{
    for (Way *way : qAsConst(m_ways))
        way->opened(m_record.reach());
}

/// The first socket stays, for its local port, and the one on which the box was heard.
void BoxPath::stopKnocking()
{
    m_isOpening = m_isImproving = false;
    m_ticks.stop();
    m_record.end();
    for (Way *way : qAsConst(m_ways))
        way->end();
    m_sockets.shrink(m_channel);
    for (TurnChannel *carrier : {m_carrier, m_retired}) {
        if (carrier != nullptr && carrier != m_channel)
            QTimer::singleShot(carrierRest, carrier, [this, carrier] {
                if (carrier != m_channel && !m_isOpening)
                    drop(carrier);
            });
    }
}

void BoxPath::giveUp(const QString &reason)
{
    m_record.fail(reason);
    if (m_channel == m_retired && isOver(m_sinceHeard, m_options.openLimit))
        drop(m_retired); // as silent as the rest; else it would be kept open until somebody asks again
    stopKnocking();
    emit failed(reason);
}

QString BoxPath::silence() const
{
    if (m_undeciphered > 0)
        return QStringLiteral("what comes back cannot be deciphered: key and iv must be those of the box");
    for (const Way *way : m_ways) {
        QString reason = way->silence();
        if (!reason.isEmpty())
            return reason;
    }
    return QStringLiteral("no answer from the box: is it there, do key and iv match, and does it list this peer?");
}

void BoxPath::keepAlive()
{
    if (m_channel != nullptr)
        knock(m_channel, m_address, m_port);
}
