// The process: one application object, one relay, which runs until the process is killed.

#include "core/udphandler.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    UDPHandler relay(nullptr);
    relay.work();
}
