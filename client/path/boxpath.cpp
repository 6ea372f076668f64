// Knocking is a KeepAlive: unlike a ConnectRequest it drops no traffic, and its echo tells that both directions are
// open. The box's own bursts of ConnectRequests open the way through its router; where one arrives, the answer goes.

#include "client/path/boxpath.h"

#include "client/path/byaddress.h"
#include "client/path/bydiscovery.h"
#include "protocol/cipher.h"
#include "protocol/datagram.h"
#include "protocol/datagramio.h"
#include "protocol/uuidscan.h"

#include <QUuid>

#include <sys/resource.h>

#include <algorithm>
#include <functional>

using namespace std::chrono_literals;

namespace
{
constexpr auto tickSpacing = 20ms;
constexpr std::chrono::milliseconds answerSpacing = 100ms; // a burst brings up to 800 datagrams at once
constexpr qintptr spareDescriptors = 300;                  // for connections of browsers
constexpr std::chrono::milliseconds echoTime = 1s;

/// The same at every start, so that what the relay still sends to one that was killed reaches the next one, which
/// confirms it: otherwise everybody would wait until the relay gives it up.
quint16 usualPort(const QString &uuid)
{
    constexpr uint first = 49152; // of the ports that nobody is assigned (RFC 6335)
    constexpr uint count = 16384;
    return static_cast<quint16>(first + QUuid(uuid).data1 % count);
}

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
    if (peer.address.isEmpty())
        addWay(new ByDiscovery(m_uuid, m_boxUuid, this));
    else
        addWay(new ByAddress(peer.box(), this));
    const bool isBound =
        options.udpPort == 0 ? addSocket(usualPort(m_uuid)) || addSocket(0) : addSocket(options.udpPort);
    if (!isBound)
        m_error = QStringLiteral("UDP port %1 cannot be used: another program may have it; choose another one")
                      .arg(options.udpPort);
    m_ticks.setInterval(tickSpacing);
    m_keepAlive.setInterval(options.keepAlive);
    connect(&m_ticks, &QTimer::timeout, this, &BoxPath::tick);
    connect(&m_keepAlive, &QTimer::timeout, this, &BoxPath::keepAlive);
}

void BoxPath::addWay(Way *way)
{
    m_ways.append(way);
    connect(way, &Way::found, this,
            [this](const QList<QHostAddress> &addresses, quint16 port) { m_plan.aimAt(addresses, port); });
    connect(way, &Way::failed, this, [this](const QString &reason) {
        if (--m_waysLeft == 0)
            giveUp(reason);
    });
}

bool BoxPath::addSocket(quint16 port)
{
    auto *socket = new QUdpSocket(this);
    if (!socket->bind(QHostAddress(QHostAddress::Any), port, QUdpSocket::DontShareAddress)) {
        delete socket;
        return false;
    }
    connect(socket, &QUdpSocket::readyRead, this, [this, socket] { readDatagrams(socket); });
    m_sockets.append(socket);
    return true;
}

bool BoxPath::isFresh() const
{
    return !m_isOpening && !isOver(m_sinceHeard, 2 * m_options.keepAlive + 5s);
}

void BoxPath::send(const QByteArray &plain)
{
    m_sinceSend.start();
    m_socket->writeDatagram(cipher::encipher(plain, m_key, m_iv), m_address, m_port);
}

void BoxPath::open()
{
    m_isOpening = true;
    m_undeciphered = 0;
    m_sinceOpening.start();
    m_plan.begin();
    m_ticks.start();
    m_waysLeft = m_ways.size();
    for (Way *way : qAsConst(m_ways))
        way->begin();
}

void BoxPath::tick()
{
    if (isOver(m_sinceOpening, m_options.openLimit))
        return giveUp(silence());
    if (!m_plan.hasTarget())
        return;
    if (m_plan.isStepOver())
        nextStep();
    const QList<Knock> knocks = m_plan.due();
    for (const Knock &next : knocks)
        knock(m_sockets.at(next.socket), next.address, next.port);
    // Where the box has knocked, until it answers.
    if (m_socket != nullptr && isOver(m_sinceKnock, KnockPlan::gentleSpacing))
        knock(m_socket, m_address, m_port);
}

void BoxPath::nextStep()
{
    const int wanted = m_plan.nextStep();
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const auto most = static_cast<qintptr>(descriptors.rlim_cur) - spareDescriptors;
    while (m_sockets.size() < wanted && m_sockets.constLast()->socketDescriptor() < most && addSocket(0)) {
    }
    m_plan.useSockets(m_sockets.size());
    emit progress(m_plan.text());
}

void BoxPath::knock(QUdpSocket *socket, const QHostAddress &address, quint16 port)
{
    const QByteArray plain = datagram::link(DatagramKind::KeepAlive, m_uuid, m_boxUuid);
    socket->writeDatagram(cipher::encipher(plain, m_key, m_iv), address, port);
    if (socket == m_socket)
        m_sinceKnock.start();
}

void BoxPath::readDatagrams(QUdpSocket *socket)
{
    do {
        QHostAddress address;
        quint16 port = 0;
        const QByteArray data = datagram::take(socket, &address, &port);
        if (data.isEmpty())
            continue;
        const QByteArray plain = cipher::decipher(data, m_key, m_iv);
        if (datagram::findUuids(plain) != QStringList{m_boxUuid, m_uuid}) {
            m_undeciphered += m_plan.isTarget(address) ? 1 : 0;
            continue;
        }
        if (!m_isOpening && socket != m_socket)
            continue;
        m_socket = socket;
        m_address = address;
        m_port = port;
        m_sinceHeard.start();
        take(plain);
    } while (m_sockets.contains(socket) && socket->hasPendingDatagrams());
}

void BoxPath::take(const QByteArray &plain)
{
    const bool isKnock = static_cast<DatagramKind>(plain.at(0)) == DatagramKind::ConnectRequest;
    const bool isEcho = !m_isOpening && !isOver(m_sinceSend, echoTime); // of a ConnectRequest of ours
    if (isKnock && !isEcho && isOver(m_sinceKnock, answerSpacing))
        knock(m_socket, m_address, m_port);
    if (m_isOpening && !isKnock)
        settle();
    emit received(plain);
}

void BoxPath::settle()
{
    stopOpening();
    m_undeciphered = 0;
    m_keepAlive.start();
    emit opened();
}

/// Keeps the first socket, for its local port, and the one on which the box was heard.
void BoxPath::stopOpening()
{
    m_isOpening = false;
    m_ticks.stop();
    for (Way *way : qAsConst(m_ways))
        way->end();
    const auto isSpare = [this](QUdpSocket *socket) { return socket != m_socket && socket != m_sockets.constFirst(); };
    const auto firstSpare = std::stable_partition(m_sockets.begin() + 1, m_sockets.end(), std::not_fn(isSpare));
    std::for_each(firstSpare, m_sockets.end(), [](QUdpSocket *socket) { socket->deleteLater(); });
    m_sockets.erase(firstSpare, m_sockets.end());
}

void BoxPath::giveUp(const QString &reason)
{
    stopOpening();
    emit failed(reason);
}

/// Why nobody may have answered.
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
    knock(m_socket, m_address, m_port);
}
