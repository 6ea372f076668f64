// The link to the box's web server on 127.0.0.1 port 80: one request at a time. Runs once a turn; blocks for up to 2 s
// on a connect, and without limit while the web server is down, since a peer's request must not be lost.

#include "bridge/webserver.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"

#include <QElapsedTimer>
#include <QSignalBlocker>
#include <QTcpSocket>
#include <QThread>

#include <logger.h>

#include <algorithm>
#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds connectWait = 2s;
constexpr auto retryPause = 100ms;

void connectToWebServer(QTcpSocket *socket)
{
    socket->connectToHost(QHostAddress::LocalHost, webserver::port, QIODevice::ReadWrite);
}

/// A socket whose connect failed refuses bytes for ever. Opened again without a word and without running a slot: the
/// failure is in the log, and the request that waits will tell when the web server is back.
void reopenQuietly(QTcpSocket *socket)
{
    const QSignalBlocker noSlots(socket);
    connectToWebServer(socket);
    socket->waitForConnected(retryPause.count());
}
} // namespace

void UDPHandler::forwardNextRequest()
{
    if (tcpQueue.isEmpty() || tcpQueue.constFirst()->forwarded)
        return;

    const QString port = QString::number(webserver::port, 10);
    if (tcpSocket->state() != QAbstractSocket::ConnectedState) {
        connectToWebServer(tcpSocket);
        if (tcpSocket->waitForConnected(static_cast<int>(connectWait.count())))
            Logger::logInfo(hostcalls::logCategory(),
                            QStringLiteral("Connected to local TCP port ") + port + QStringLiteral(" (UDP Slot)"));
        else
            Logger::logError(hostcalls::logCategory(), QStringLiteral("Failed to connect to local TCP port ") + port +
                                                           QStringLiteral(" (UDP Slot)"));
    }

    UdpMessage *request = tcpQueue.constFirst();
    Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Write to TCP port: ") + QString(request->data));
    while (tcpSocket->write(request->data.constData(), request->data.size()) == -1) {
        Logger::logDebug(hostcalls::logCategory(), QStringLiteral("Failed to write to TCP port"));
        QElapsedTimer pause;
        pause.start();
        if (tcpSocket->state() != QAbstractSocket::ConnectedState)
            reopenQuietly(tcpSocket);
        QThread::msleep(static_cast<unsigned long>(std::max<qint64>(retryPause.count() - pause.elapsed(), 0)));
    }
    currentRequestId = request->msgId;
    request->forwarded = true;
}

void UDPHandler::tcpDisconnected()
{
    Logger::logDebug(hostcalls::logCategory(),
                     QStringLiteral("TCP disconnected at port ") + QString::number(webserver::port, 10));
}

void UDPHandler::tcpError(QAbstractSocket::SocketError error)
{
    Q_UNUSED(error)
    Logger::logError(hostcalls::logCategory(), QStringLiteral("TCP error: ") + tcpSocket->errorString());
    tcpSocket->disconnectFromHost();
}
