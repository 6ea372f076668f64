// import: makes the file that the other commands read of the link that the box has handed over.

#include "client/command/command.h"
#include "client/commandline.h"
#include "client/tell.h"
#include "handover/output.h"
#include "handover/peerfile.h"

#include <QFile>

#include <cstdio>

namespace
{
constexpr qint64 longestLink = 4096; // characters; those of the box have some 400

/// From standard input where the word is a hyphen: what is typed on a command line is seen by others on the machine.
QString linkOf(const QString &word)
{
    if (word != QLatin1String("-"))
        return word;
    QFile input;
    return input.open(stdin, QIODevice::ReadOnly) ? QString::fromUtf8(input.readLine(longestLink)) : QString();
}
} // namespace

int command::import(const Job &job)
{
    const PeerFile peer = PeerFile::ofLink(linkOf(job.line.argument()));
    if (!peer.error.isEmpty())
        return complain(peer.error);
    const QString path = job.line.text("config");
    if (path.isEmpty()) // an empty variable of a script must not put the key on its terminal
        return complain(QStringLiteral("--config must name a new file"));
    Output file(path);
    if (!file.error().isEmpty() || !file.write(peer.toIni()))
        return complain(file.error());
    std::printf("Wrote %s, which only you may read. Reach the box with: nat-peer --config %s serve\n", qPrintable(path),
                qPrintable(path));
    return 0;
}
