// Knocking is a KeepAlive: unlike a ConnectRequest it drops no traffic, and its echo tells that both directions are
// open. The box's own bursts of ConnectRequests open the way through its router; where one arrives, the answer goes.

#include "client/path/boxpath.h"

#include "protocol/cipher.h"
#include "protocol/datagram.h"
#include "protocol/takedatagram.h"
#include "protocol/uuidscan.h"

#include <QHostInfo>

#include <sys/resource.h>

#include <algorithm>
#include <functional>

using namespace std::chrono_literals;

namespace
{
/// One way to knock. Each of `sockets` knocks at the box's port; the first `sweepers` of them also at `reach` ports to
/// either side of it.
struct Step {
    int sockets;
    int sweepers;
    int reach;
    std::chrono::milliseconds length; // a burst of the box must fall into it
    std::chrono::milliseconds round;  // before it is all done again
};

// The gentlest first. A router of the box that draws its outside ports from a small range is met by a sweep. A router
// of the peer that draws from all ports is met by many sockets: each has another outside port, and the box's burst
// covers 800 of them. Two small ranges are met by several sweeps, each of which is a chance of its own. All is done
// more than once: a lost echo leaves the box content, and its bursts over, but us without a path.
constexpr Step steps[] = {
    {1, 0, 0, 3s, 500ms}, {1, 1, 400, 8s, 2s}, {256, 0, 0, 6s, 2s}, {512, 0, 0, 8s, 3s}, {512, 5, 400, 20s, 30s},
};
constexpr int stepCount = sizeof steps / sizeof *steps;
constexpr int lastingStep = 3; // goes on with this one and those behind it

constexpr auto tickSpacing = 20ms;
constexpr std::chrono::milliseconds answerSpacing = 100ms; // a burst brings up to 800 datagrams at once
constexpr qintptr spareDescriptors = 300;                  // for connections of browsers
constexpr std::chrono::milliseconds echoTime = 1s;
constexpr double longestVolley = 50; // datagrams: what a socket's buffer surely takes

bool isOver(const QElapsedTimer &timer, std::chrono::milliseconds time)
{
    return !timer.isValid() || timer.hasExpired(time.count());
}
} // namespace

BoxPath::BoxPath(const PeerFile &peer, const Options &options, QObject *parent)
    : QObject(parent), m_uuid(peer.uuid), m_boxUuid(peer.boxUuid), m_box(peer.box()),
      m_key(QByteArray::fromHex(peer.key.toLatin1())), m_iv(QByteArray::fromHex(peer.iv.toLatin1())), m_options(options)
{
    if (!addSocket(options.udpPort))
        m_error = QStringLiteral("UDP port %1 cannot be used: another program may have it; choose another one")
                      .arg(options.udpPort);
    m_ticks.setInterval(tickSpacing);
    m_keepAlive.setInterval(options.keepAlive);
    connect(&m_ticks, &QTimer::timeout, this, &BoxPath::tick);
    connect(&m_keepAlive, &QTimer::timeout, this, &BoxPath::keepAlive);
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
    m_targets.clear();
    m_undeciphered = 0;
    m_sinceOpening.start();
    m_sinceAllowance.start();
    m_allowance = longestVolley;
    beginStep(0);
    m_ticks.start();
    if (m_box.host.isEmpty())
        discover();
    else
        lookUp();
}

void BoxPath::lookUp()
{
    const QHostAddress literal(m_box.host); // needs no look-up, which would ask for its name
    if (!literal.isNull())
        return aimAt({literal}, static_cast<quint16>(m_box.port));
    // At once, for nothing can be done without it; and not from the cache of Qt's own look-ups: an address that has
    // changed may be why the path is opened anew.
    const QHostInfo host = QHostInfo::fromName(m_box.host);
    if (!host.addresses().isEmpty())
        return aimAt(host.addresses(), static_cast<quint16>(m_box.port));
    stopOpening();
    emit failed(QStringLiteral("no address found for %1, the box's host").arg(m_box.host));
}

void BoxPath::discover()
{
    m_discovery = std::make_unique<Discovery>(m_uuid, QHostAddress(), Discovery::defaultPort);
    connect(m_discovery.get(), &Discovery::found, this, [this](const FoundBox &box) {
        if (box.uuid == m_boxUuid)
            aimAt({box.address}, box.udpPort);
    });
    connect(
        m_discovery.get(), &Discovery::finished, this,
        [this] {
            if (m_isOpening && m_targets.isEmpty())
                discover();
        },
        Qt::QueuedConnection); // the next one takes its place
}

void BoxPath::aimAt(const QList<QHostAddress> &addresses, quint16 port)
{
    m_targets = addresses;
    m_targetPort = port;
    m_plan.clear();
    m_sinceRound.invalidate(); // at once
}

bool BoxPath::isTarget(const QHostAddress &address) const
{
    return std::any_of(m_targets.cbegin(), m_targets.cend(), [&address](const QHostAddress &target) {
        return target.isEqual(address, QHostAddress::TolerantConversion);
    });
}

void BoxPath::tick()
{
    if (isOver(m_sinceOpening, m_options.openLimit))
        return giveUp();
    if (m_targets.isEmpty())
        return;
    if (m_options.punch && m_plan.isEmpty() && isOver(m_sinceStep, steps[m_step].length))
        beginStep(m_step + 1 < stepCount ? m_step + 1 : lastingStep);
    if (m_plan.isEmpty() && isOver(m_sinceRound, steps[m_step].round))
        planRound();
    knockAsPlanned();
    // Where the box has knocked, until it answers.
    if (m_socket != nullptr && isOver(m_sinceKnock, steps[0].round))
        knock(m_socket, m_address, m_port);
}

void BoxPath::beginStep(int step)
{
    m_step = step;
    m_plan.clear();
    m_sinceStep.start();
    m_sinceRound.invalidate();
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const auto most = static_cast<qintptr>(descriptors.rlim_cur) - spareDescriptors;
    while (m_sockets.size() < steps[step].sockets && m_sockets.constLast()->socketDescriptor() < most && addSocket(0)) {
    }
    if (step > 0) {
        const int sockets = std::min(m_sockets.size(), steps[step].sockets);
        const int datagrams = sockets + steps[step].sweepers * 2 * steps[step].reach;
        emit progress(QStringLiteral("no answer yet; trying from %1 at %2 of the box's ports: %3 datagrams")
                          .arg(sockets == 1 ? QStringLiteral("1 socket") : QStringLiteral("%1 sockets").arg(sockets))
                          .arg(1 + 2 * steps[step].reach)
                          .arg(datagrams));
    }
}

void BoxPath::planRound()
{
    m_sinceRound.start();
    const Step &step = steps[m_step];
    for (int i = 0; i < std::min(step.sockets, m_sockets.size()); i++)
        m_plan.append({i, 0});
    for (int offset = 1; offset <= step.reach; offset++) { // the nearest first
        for (int i = 0; i < std::min(step.sweepers, m_sockets.size()); i++)
            m_plan << Knock{i, offset} << Knock{i, -offset};
    }
}

void BoxPath::knockAsPlanned()
{
    constexpr double minute = 60000; // ms
    m_allowance += m_options.datagramsPerMinute * static_cast<double>(m_sinceAllowance.restart()) / minute;
    m_allowance = std::min(m_allowance, longestVolley);
    while (!m_plan.isEmpty() && m_allowance >= 1) {
        const Knock next = m_plan.takeFirst();
        for (const QHostAddress &address : qAsConst(m_targets)) {
            knock(m_sockets.at(next.socket), address, static_cast<quint16>(m_targetPort + next.offset));
            m_allowance--;
        }
    }
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
            m_undeciphered += isTarget(address) ? 1 : 0;
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
    m_plan.clear();
    const auto isSpare = [this](QUdpSocket *socket) { return socket != m_socket && socket != m_sockets.constFirst(); };
    const auto firstSpare = std::stable_partition(m_sockets.begin() + 1, m_sockets.end(), std::not_fn(isSpare));
    std::for_each(firstSpare, m_sockets.end(), [](QUdpSocket *socket) { socket->deleteLater(); });
    m_sockets.erase(firstSpare, m_sockets.end());
}

void BoxPath::giveUp()
{
    stopOpening();
    if (m_undeciphered > 0)
        emit failed(QStringLiteral("what comes back cannot be deciphered: key and iv must be those of the box"));
    else if (m_box.host.isEmpty() && m_targets.isEmpty())
        emit failed(QStringLiteral("no answer from the box on the local network: is it there? If it is elsewhere, the "
                                   "configuration must have its address"));
    else
        emit failed(
            QStringLiteral("no answer from the box: is it there, do key and iv match, and does it list this peer?"));
}

void BoxPath::keepAlive()
{
    knock(m_socket, m_address, m_port);
}
