// The agent sees nothing of the relay in /proc, as both are shielded, but may send it signals, as both are of one user;
// and the control group of a service lists its processes for everybody.

#include "agent/relayservice.h"

#include <QFile>
#include <QString>

#include <csignal>

namespace
{
/// The folder of a service beside this one, empty where this one is none.
QString groupOf(const QByteArray &service)
{
    QFile own(QStringLiteral("/proc/self/cgroup"));
    if (!own.open(QIODevice::ReadOnly))
        return {};
    const auto lines = own.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QByteArray group = line.mid(line.lastIndexOf(':') + 1);
        if (line.startsWith("0::") && group.endsWith("/nat-relay-agent.service"))
            return QString::fromLocal8Bit("/sys/fs/cgroup" + group.left(group.lastIndexOf('/') + 1) + service);
    }
    return {};
}
} // namespace

bool endRelay()
{
    QFile processes(groupOf("nat-relayd.service") + QStringLiteral("/cgroup.procs"));
    if (!processes.open(QIODevice::ReadOnly))
        return false;
    bool isEnded = false;
    const auto ids = processes.readAll().split('\n');
    for (const QByteArray &process : ids) {
        const int id = process.toInt();
        isEnded = (id > 0 && kill(id, SIGTERM) == 0) || isEnded;
    }
    return isEnded;
}
