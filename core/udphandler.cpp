// Construction of the relay: settings first, then the sockets they name. Blocks for up to 30 s on the web server.

#include "core/udphandler.h"

#include "bridge/webserver.h"
#include "core/hostcalls.h"

#include <QTcpSocket>
#include <QUdpSocket>

#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr auto firstConnectWait = 30s; // at boot the web server may still be starting
} // namespace

UDPHandler::UDPHandler(QObject *parent) : QObject(parent)
{
    loadSettings();

    udpSocket = new QUdpSocket(this);
    udpSocket->bind(QHostAddress::Any, udpPort, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint);

    // Discovery is an affair of the IPv4 LAN, and other programs on the box may listen on its port too.
    discoverSocket = new QUdpSocket(this);
    discoverSocket->bind(QHostAddress::AnyIPv4, udpPortDiscover, QUdpSocket::ShareAddress);

    connect(udpSocket, SIGNAL(readyRead()), this, SLOT(readyRead()));
    connect(discoverSocket, SIGNAL(readyRead()), this, SLOT(readyReadDiscover()));

    hostcalls::logInfo(QStringLiteral("NAT Traverse started. UDP listening on ") + QString::number(udpPort) +
                       QStringLiteral(" & ") + QString::number(udpPortDiscover));

    tcpSocket = new QTcpSocket(this);
    if (connectToWebServer(firstConnectWait))
        hostcalls::logDebug(QStringLiteral("Connected to local TCP port ") + QString::number(webserver::port));

    // Only now: a web server that is not up at start is no error, the first request tries again.
    connect(tcpSocket, SIGNAL(readyRead()), this, SLOT(readyReadTCP()));
    connect(tcpSocket, SIGNAL(disconnected()), this, SLOT(tcpDisconnected()));
    connect(tcpSocket, SIGNAL(error(QAbstractSocket::SocketError)), this, SLOT(tcpError(QAbstractSocket::SocketError)));
}
