// The question is asked anew every second: a datagram may be lost. The replies come from each box's own address.

#include "client/path/discovery.h"

#include "protocol/datagram.h"
#include "protocol/datagramio.h"
#include "protocol/uuidscan.h"

#include <QNetworkInterface>

#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace
{
constexpr char discoveryType = 2;
constexpr auto repeatSpacing = 1s;
constexpr std::chrono::milliseconds patience = 3s;
constexpr int tcpPortOffset = 1;
constexpr int udpPortOffset = 3;

QList<QHostAddress> broadcastAddresses()
{
    QList<QHostAddress> addresses{QHostAddress(QHostAddress::Broadcast)};
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        const auto entries = interface.addressEntries();
        for (const QNetworkAddressEntry &entry : entries) {
            if (!entry.broadcast().isNull() && interface.flags().testFlag(QNetworkInterface::CanBroadcast))
                addresses += entry.broadcast();
        }
    }
    return addresses;
}
} // namespace

Discovery::Discovery(QString uuid, const QHostAddress &target, quint16 port, QObject *parent)
    : QObject(parent), m_uuid(std::move(uuid)), m_target(target), m_port(port)
{
    m_socket.bind(QHostAddress(QHostAddress::AnyIPv4), 0);
    m_clock.start();
    connect(&m_socket, &QUdpSocket::readyRead, this, &Discovery::readReplies);
    connect(&m_repeat, &QTimer::timeout, this, &Discovery::ask);
    m_repeat.start(repeatSpacing);
    QTimer::singleShot(0, this, &Discovery::ask);
}

void Discovery::ask()
{
    if (m_clock.hasExpired(patience.count())) {
        m_repeat.stop();
        emit finished();
        return;
    }
    const QByteArray question = discoveryType + m_uuid.toUtf8();
    const auto targets = m_target.isNull() ? broadcastAddresses() : QList<QHostAddress>{m_target};
    for (const QHostAddress &target : targets)
        m_socket.writeDatagram(question, target, m_port);
}

void Discovery::readReplies()
{
    do {
        FoundBox box;
        const QByteArray reply = datagram::take(&m_socket, &box.address, nullptr);
        const QStringList uuids = datagram::findUuids(reply);
        box.uuid = uuids.at(0);
        box.tcpPort = datagram::readInteger<quint16>(reply, tcpPortOffset);
        box.udpPort = datagram::readInteger<quint16>(reply, udpPortOffset);
        const bool isReply = reply.startsWith(discoveryType) && uuids.at(1) == m_uuid && box.udpPort != 0;
        const QString key = box.uuid + box.address.toString();
        if (!isReply || m_seen.contains(key))
            continue;
        m_seen.insert(key);
        emit found(box);
    } while (m_socket.hasPendingDatagrams());
}
