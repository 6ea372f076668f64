// nat-peer: reaches the box's web server through the relay.

#include "client/command/command.h"
#include "client/commandline.h"
#include "client/path/boxpath.h"
#include "client/relay/relayclient.h"
#include "client/tell.h"
#include "handover/peerfile.h"

#include <QCoreApplication>

#include <csignal>

namespace
{
const QList<Command> &commands()
{
    static const QList<Command> all{
        {QStringLiteral("get"), QStringLiteral("/path"), QStringLiteral("prints a page"), true, command::get},
        {QStringLiteral("serve"), QString(), QStringLiteral("lets any browser reach the box, at http://127.0.0.1:8080"),
         true, command::serve},
        {QStringLiteral("discover"), QStringLiteral("[address[:port]]"),
         QStringLiteral("lists the boxes on the local network"), false, command::discover},
        {QStringLiteral("status"), QString(), QStringLiteral("tells how the box is reached, and why not"), false,
         command::status}};
    return all;
}
} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a closed output is an error like any other, and the relay is told all the same
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nat-peer"));

    CommandLine line(commands());
    const QString mistake = line.read(QCoreApplication::arguments());
    if (!mistake.isEmpty())
        return complain(mistake);
    const PeerFile peer = PeerFile::read(line.text("config"));
    if (!peer.error.isEmpty())
        return complain(peer.error);
    const Command &command = line.command();
    if (!command.needsPath)
        return command.run({line, peer, nullptr, nullptr});

    BoxPath path(peer, line.pathOptions(peer));
    if (!path.error().isEmpty())
        return complain(path.error());
    QObject::connect(&path, &BoxPath::progress, tell);
    constexpr int millisecondsPerSecond = 1000;
    RelayClient client(&path, peer.uuid, peer.boxUuid, millisecondsPerSecond * line.number("timeout"));
    QObject::connect(&client, &RelayClient::noticed, tell);
    return command.run({line, peer, &path, &client});
}
