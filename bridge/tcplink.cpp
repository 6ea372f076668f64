// The link to the box's web server on 127.0.0.1 port 80: one request at a time. Runs once a turn; blocks for up to 2 s
// on a connect, and without limit while the web server is down, since a peer's request must not be lost.

#include "bridge/webserver.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"

#include <QElapsedTimer>
#include <QSignalBlocker>
#include <QTcpSocket>
#include <QThread>

#include <algorithm>
#include <chrono>

using namespace std::chrono_literals;

namespace
{
constexpr auto connectWait = 2s;
constexpr auto retryPause = 100ms;
} // namespace

bool UDPHandler::connectToWebServer(std::chrono::milliseconds wait)
{
    tcpSocket->connectToHost(QHostAddress::LocalHost, webserver::port, QIODevice::ReadWrite);
    return tcpSocket->waitForConnected(static_cast<int>(wait.count()));
}

/// A socket whose connect failed refuses bytes for ever. Opened again without a word and without running a slot: the
/// failure is in the log, and the request that waits will tell when the web server is back.
void UDPHandler::reopenQuietly()
{
    const QSignalBlocker noSlots(tcpSocket);
    connectToWebServer(retryPause);
}

void UDPHandler::forwardNextRequest()
{
    if (tcpQueue.isEmpty() || tcpQueue.constFirst()->forwarded)
        return;

    const QString port = QString::number(webserver::port, 10);
    if (tcpSocket->state() != QAbstractSocket::ConnectedState) {
        if (connectToWebServer(connectWait))
            hostcalls::logInfo(QStringLiteral("Connected to local TCP port ") + port + QStringLiteral(" (UDP Slot)"));
        else
            hostcalls::logError(QStringLiteral("Failed to connect to local TCP port ") + port +
                                QStringLiteral(" (UDP Slot)"));
    }

    UdpMessage *request = tcpQueue.constFirst();
    hostcalls::logDebug(QStringLiteral("Write to TCP port: ") + QString(request->data));
    while (tcpSocket->write(request->data.constData(), request->data.size()) == -1) {
        hostcalls::logDebug(QStringLiteral("Failed to write to TCP port"));
        QElapsedTimer pause;
        pause.start();
        if (tcpSocket->state() != QAbstractSocket::ConnectedState)
            reopenQuietly();
        QThread::msleep(static_cast<unsigned long>(std::max<qint64>(retryPause.count() - pause.elapsed(), 0)));
    }
    currentRequestId = request->msgId;
    request->forwarded = true;
}

void UDPHandler::tcpDisconnected()
{
    hostcalls::logDebug(QStringLiteral("TCP disconnected at port ") + QString::number(webserver::port, 10));
}

void UDPHandler::tcpError(QAbstractSocket::SocketError error)
{
    Q_UNUSED(error)
    hostcalls::logError(QStringLiteral("TCP error: ") + tcpSocket->errorString());
    tcpSocket->disconnectFromHost();
}
