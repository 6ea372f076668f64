// The process: one application object, one relay, which runs until the process is killed.

#include "core/udphandler.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    // Without this variable the C library looks for a changed zone file at every use of local time, thrice a turn.
    if (!qEnvironmentVariableIsSet("TZ"))
        qputenv("TZ", ":/etc/localtime");
    const QCoreApplication application(argc, argv);
    UDPHandler relay(nullptr);
    relay.work();
}
