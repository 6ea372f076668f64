// Registration with the rendezvous server: one plain datagram per interval, so that remote peers can ask the server
// where the box is. Blocks the loop for as long as the name lookup takes.

#include "core/hostcalls.h"
#include "core/udphandler.h"
#include "protocol/datagram.h"

#include <QHostInfo>
#include <QUdpSocket>

#include <database.h>

void UDPHandler::registerWithServer()
{
    hostcalls::logDebug(QStringLiteral("Send UDP message to server"));

    Database database(QStringLiteral("UDPHostName"));
    const auto serverName = [&database] {
        return database.getSetting(QStringLiteral("server_hostname"), hostcalls::noAccessKey());
    };

    // Sent in plain: the server holds no key of the box.
    const QByteArray registration =
        datagram::announcement(static_cast<quint8>(DatagramKind::ConnectRequest), tcpPort, udpPort, uuid);

    const QHostInfo server = QHostInfo::fromName(serverName());
    if (server.error() != QHostInfo::NoError) {
        hostcalls::logInfo(QStringLiteral("Hostname lookup to ") + serverName() +
                           QStringLiteral(" failed. Make sure there is available internet at IXO! Error: ") +
                           server.errorString());
    } else if (!server.addresses().isEmpty()) {
        const qint64 sent = udpSocket->writeDatagram(registration.constData(), registration.size(),
                                                     server.addresses().constFirst(), serverUdpPort);
        // The port shows as the one character of its low byte, not as digits: on purpose.
        hostcalls::logDebug(QStringLiteral("Sending UDP keep alive to server ") + server.hostName() + QLatin1Char(':') +
                            QChar(serverUdpPort & 0xff) + QStringLiteral(". Result: ") + QString::number(sent, 10));
    }
    lastServerUpdate = QDateTime::currentDateTime();
}
