// The table of remote clients: read from the host's store at most once a second, where other programs on the box list
// the peers; only a peer's status is written back. Blocks on the store.

#include "core/clock.h"
#include "core/hostcalls.h"
#include "core/udphandler.h"

#include <database.h>

using namespace std::chrono_literals;

namespace
{
constexpr auto reloadSpacing = 1000ms;

enum Column { RemoteIp = 1, RemoteUuid = 2, Status = 3, UdpPort = 4, UdpPortRemote = 6 };
} // namespace

void UDPHandler::getRemoteClients()
{
    if (!hasElapsed(lastRemoteClientsLoad, reloadSpacing))
        return;

    const auto rows =
        Database(QStringLiteral("NATTraverse"))
            .performQueryWithResult(
                QStringLiteral("SELECT id, remote_ip, remote_uuid, status, udp_port, tcp_port, udp_port_remote "
                               "FROM `box`.`nat_traverse`"),
                {}, hostcalls::accessKey());

    bool isGrown = false;
    for (const QVector<QString> &row : rows) {
        const QString key = row.value(RemoteUuid);
        const QHostAddress host(row.value(RemoteIp));
        const auto status = static_cast<quint8>(row.value(Status).toInt(nullptr, 10));
        const int port = row.value(UdpPort).toInt(nullptr, 10);

        const auto known = remoteClients.find(key);
        if (known != remoteClients.end()) {
            known->host = host;
            known->status = status;
            known->udpPort = port;
            known->udpPortRemote = row.value(UdpPortRemote).toInt(nullptr, 10);
            if (known->isIn(ConnectionStatus::ConnectRequested))
                setConnectionStatus(ConnectionStatus::Connecting, key);
        } else {
            // The first read only registers the peer. Its port as seen from outside comes with the next read, and the
            // status write finds no entry yet and does nothing: attempts begin when the entry is whole.
            RemoteClient client;
            client.host = host;
            client.udpPort = port;
            client.remoteUuid = key;
            client.status = status;
            if (client.isIn(ConnectionStatus::ConnectRequested)) {
                setConnectionStatus(ConnectionStatus::Connecting, key);
                hostcalls::logInfo(QStringLiteral("Remote client connected through UDP discover. Host: ") +
                                   host.toString() + QStringLiteral(" UUID: ") + key);
            }
            remoteClients.insert(key, client);
            isGrown = true;
        }
    }
    // Every turn walks the table, and walks it several times faster when the entries lie in memory in their order.
    if (isGrown) {
        QMap<QString, RemoteClient> inOrder;
        for (auto client = remoteClients.cbegin(); client != remoteClients.cend(); ++client)
            inOrder.insert(inOrder.cend(), client.key(), client.value());
        remoteClients = inOrder;
    }
    lastRemoteClientsLoad = QDateTime::currentDateTime();
}

void UDPHandler::setConnectionStatus(ConnectionStatus status, const QString &peerUuid)
{
    const auto client = remoteClients.find(peerUuid);
    if (client == remoteClients.end())
        return;

    const auto value = static_cast<quint8>(status);
    const QString number = QString::number(value, 10);
    Database(QStringLiteral("SetStatus"))
        .performQuery(QStringLiteral("UPDATE `box`.`nat_traverse` SET status = ? WHERE remote_uuid = ?;"),
                      {number, peerUuid}, hostcalls::accessKey());
    client->status = value;
    hostcalls::logInfo(QStringLiteral("Set connection status for ") + client->host.toString() + QStringLiteral(" to ") +
                       number);
    if (status == ConnectionStatus::Connected)
        client->tries = 0;
}
