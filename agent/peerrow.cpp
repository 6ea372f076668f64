// Each statement does the whole of it: between two of them the relay may change the status.

#include "agent/peerrow.h"

#include "core/hostcalls.h"

#include <database.h>

namespace
{
const QLatin1String connected("1");
const QLatin1String noStatus("-1");
} // namespace

std::optional<PeerRow> PeerRow::of(const introduction::Uuid &peer)
{
    // An aggregate gives a row also where there is no such peer: only a store that fails gives none. Whoever filled the
    // table may have written the UUID in capitals.
    const auto rows =
        Database(QStringLiteral("Agent"))
            .performQueryWithResult(QStringLiteral("SELECT MAX(remote_uuid), MAX(status) "
                                                   "FROM `box`.`nat_traverse` WHERE LOWER(remote_uuid) = ?"),
                                    {QString::fromStdString(introduction::textOf(peer))}, hostcalls::accessKey());
    if (rows.isEmpty())
        return std::nullopt;
    return PeerRow{rows.constFirst().at(0), rows.constFirst().at(1) == connected};
}

void askForConnection(const QString &peer, const Route &route, bool always)
{
    Database(QStringLiteral("Agent"))
        .performQuery(
            QStringLiteral("UPDATE `box`.`nat_traverse` SET remote_ip = ?, udp_port = ?, udp_port_remote = ?, "
                           "status = 2 WHERE remote_uuid = ? AND status <> ?"),
            {route.address, QString::number(route.udpPort), QString::number(route.udpPortRemote), peer,
             always ? noStatus : connected},
            hostcalls::accessKey());
}
