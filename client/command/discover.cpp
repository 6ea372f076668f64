// discover: lists the boxes on the local network.

#include "client/command/command.h"
#include "client/commandline.h"
#include "client/path/discovery.h"
#include "client/tell.h"
#include "handover/endpoint.h"
#include "handover/peerfile.h"

#include <QCoreApplication>

#include <cstdio>

int command::discover(const Job &job)
{
    const QString where = job.line.argument();
    Endpoint target;
    if (!where.isEmpty())
        target = Endpoint::ofAddress(where);
    if (!target.error.isEmpty())
        return complain(target.error);
    const quint16 port = target.port == Endpoint::noPort ? Discovery::defaultPort : static_cast<quint16>(target.port);
    Discovery discovery(job.peer.uuid, QHostAddress(target.host), port);
    bool isFound = false;
    QObject::connect(&discovery, &Discovery::found, [&](const FoundBox &box) {
        isFound = true;
        std::printf("%s UDP %d TCP %d %s\n", qPrintable(box.address.toString()), box.udpPort, box.tcpPort,
                    qPrintable(box.uuid));
        std::fflush(stdout);
    });
    QObject::connect(&discovery, &Discovery::finished, [&isFound] {
        QCoreApplication::exit(isFound ? 0 : complain(QStringLiteral("no box answered within 3 s")));
    });
    return QCoreApplication::exec();
}
