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
        {QStringLiteral("get"), QStringLiteral("/path"), QStringLiteral("prints a page"), Command::Needs::Path,
         command::get},
        {QStringLiteral("serve"), QString(), QStringLiteral("lets any browser reach the box, at http://127.0.0.1:8080"),
         Command::Needs::Path, command::serve},
        {QStringLiteral("discover"), QStringLiteral("[address[:port]]"),
         QStringLiteral("lists the boxes on the local network"), Command::Needs::PeerFile, command::discover},
        {QStringLiteral("import"), QStringLiteral("link"),
         QStringLiteral("writes a new --config file of the box's link (-: on standard input)"), Command::Needs::Link,
         command::import},
        {QStringLiteral("status"), QString(), QStringLiteral("tells how the box is reached, and why not"),
         Command::Needs::PeerFile, command::status}};
    return all;
}
} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a closed output is an error like any other, and the relay is told all the same
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nat-peer"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROGRAM_VERSION));

    CommandLine line(commands());
    const QString mistake = line.read(QCoreApplication::arguments());
    if (!mistake.isEmpty())
        return complain(mistake);
    const Command &command = line.command();
    const PeerFile peer = command.needs == Command::Needs::Link ? PeerFile() : PeerFile::read(line.text("config"));
    if (!peer.error.isEmpty())
        return complain(peer.error);
    if (command.needs != Command::Needs::Path)
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
