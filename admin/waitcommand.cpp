// nat-relayd takes its ports once, when it starts, as the store names them then. What would keep it from that is waited
// for here, before it starts.

#include "admin/commands.h"
#include "admin/print.h"
#include "store/settingrules.h"
#include "store/storeconnection.h"

#include <QDeadlineTimer>
#include <QMap>
#include <QThread>
#include <QUdpSocket>

#include <chrono>
#include <csignal>

using namespace std::chrono_literals;

namespace
{
constexpr auto spacing = 500ms; // of tries; whoever waits for a box to start notices no less

const QLatin1String port("nat_udpport");
const QLatin1String discoveryPort("nat_udpportdiscover");

/// Empty text, or what is wrong with the store. What else may be missing the relay takes over while it runs, or does
/// without on purpose, as without a key.
QString readSettings(QMap<QString, QString> *settings)
{
    const StoreUrl url = StoreUrl::parse(qEnvironmentVariable("BOX_DATABASE"));
    StoreConnection store(url);
    if (store.open()) {
        const auto rows = store.rows(QStringLiteral("SELECT name, value FROM %1").arg(store.table("settings")));
        for (const QStringList &row : rows)
            settings->insert(row.at(0), row.at(1));
    }
    if (!store.error().isEmpty())
        return QStringLiteral("%1: %2").arg(url.shown, store.error());
    for (const QString &name : {QStringLiteral("uuid"), QString(port), QString(discoveryPort)}) {
        QString error = SettingRule::find(name)->check(settings->value(name), name + QStringLiteral(" in the store"));
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

/// Binds as the relay does (core/udphandler.cpp): other programs that share the port too, as nat-relay-agent, are none
/// in the way. Empty text, or why it cannot.
QString bindAsRelay(QUdpSocket *socket, const QHostAddress &address, const QString &number, QUdpSocket::BindMode mode)
{
    if (socket->bind(address, number.toUShort(), mode))
        return QString();
    if (socket->error() == QAbstractSocket::AddressInUseError)
        return QStringLiteral("another program has UDP port %1").arg(number);
    return QStringLiteral("UDP port %1 cannot be taken: %2").arg(number, socket->errorString());
}

/// Empty text when nat-relayd can start. Where one runs, a datagram that comes in the microseconds in which both have
/// the port is lost to it; its sender repeats it.
QString obstacle()
{
    QMap<QString, QString> settings;
    QString error = readSettings(&settings);
    QUdpSocket peers;
    QUdpSocket discovery;
    if (error.isEmpty())
        error = bindAsRelay(&peers, QHostAddress::Any, settings.value(port),
                            QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint);
    if (error.isEmpty())
        error = bindAsRelay(&discovery, QHostAddress::AnyIPv4, settings.value(discoveryPort), QUdpSocket::ShareAddress);
    return error;
}
} // namespace

QString admin::wait(const Request &request)
{
    const QString limit = request.values.value(QStringLiteral("limit"));
    bool isNumber = true;
    const uint seconds = limit.isNull() ? 0 : limit.toUInt(&isNumber);
    if (!isNumber)
        return QStringLiteral("--limit must be a whole number of seconds");
    const QDeadlineTimer end =
        limit.isNull() ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(std::chrono::seconds(seconds));
    for (const int interruption : {SIGINT, SIGTERM, SIGHUP}) // nothing is changed here
        std::signal(interruption, SIG_DFL);

    QString told;
    for (;;) {
        const QString reason = obstacle().simplified();
        if (reason.isEmpty())
            return QString();
        if (end.hasExpired())
            return QStringLiteral("nat-relayd could not start after %1 s: %2").arg(limit, reason);
        if (reason != told) {
            QString error = print(QStringLiteral("nat-relayd waits: %1\n").arg(reason).toLocal8Bit());
            if (!error.isEmpty())
                return error;
        }
        told = reason;
        QThread::msleep(static_cast<unsigned long>(spacing.count()));
    }
}
