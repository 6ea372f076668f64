// What each setting may be. The relay itself takes whatever stands in the store, so wrong values must not get there.

#include "store/settingrules.h"

#include "handover/endpoint.h"
#include "handover/valuecheck.h"
#include "protocol/cipher.h"

#include <QByteArray>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUuid>

#include <algorithm>
#include <limits>

namespace
{
/// Random bytes from `lowest` to 255, as hexadecimal digits.
QString freshBytes(int lowest)
{
    QByteArray bytes(cipher::blockLength, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(QRandomGenerator::system()->bounded(lowest, 256));
    return QString::fromLatin1(bytes.toHex());
}

QString checkNumber(const QString &value, int least, int most, const QString &demand)
{
    static const QRegularExpression digits(QStringLiteral("\\A[0-9]+\\z"));
    bool isNumber = false;
    const int number = value.toInt(&isNumber);
    return isNumber && digits.match(value).hasMatch() && number >= least && number <= most
               ? QString()
               : QStringLiteral("%1 from %2 to %3").arg(demand).arg(least).arg(most);
}

QString checkPort(const QString &value, const QString &name)
{
    return checkNumber(value, 1, std::numeric_limits<quint16>::max(), name + QStringLiteral(" must be a port"));
}

template <int least> QString checkCount(const QString &value, const QString &name)
{
    return checkNumber(value, least, std::numeric_limits<int>::max(), name + QStringLiteral(" must be a whole number"));
}

QString checkHostName(const QString &value, const QString &name)
{
    return valuecheck::isHostName(value)
               ? QString()
               : QStringLiteral("%1 must be a host name like relay.example.net, and no address: looking an address up "
                                "backwards would stall the relay for seconds")
                     .arg(name);
}

QString checkServer(const QString &value, const QString & /*name*/)
{
    return value.isEmpty() ? QString() : Endpoint::ofServer(value).error;
}
} // namespace

const QList<SettingRule> &SettingRule::all()
{
    static const QList<SettingRule> rules{
        {"uuid", [] { return QUuid::createUuid().toString(); }, valuecheck::uuid, Effect::WithPeers},
        {"nat_udpport", [] { return QStringLiteral("5000"); }, checkPort, Effect::AtStart},
        {"nat_udpportdiscover", [] { return QStringLiteral("5001"); }, checkPort, Effect::AtStart},
        {"nat_tcpport", [] { return QStringLiteral("80"); }, checkPort, Effect::Soon},
        {"nat_server_udpport", [] { return QStringLiteral("7000"); }, checkPort, Effect::Soon},
        {"server_hostname", [] { return QStringLiteral("localhost"); }, checkHostName, Effect::Soon},
        {"nat_server_update_interval", [] { return QStringLiteral("300"); }, checkCount<1>, Effect::Soon},
        {"nat_connectioninterval", [] { return QStringLiteral("5000"); }, checkCount<1>, Effect::Soon},
        {"nat_maxconnecttries", [] { return QStringLiteral("3"); }, checkCount<0>, Effect::Soon},
        {"aes_key", [] { return freshBytes(0); }, valuecheck::key, Effect::WithPeers},
        {"aes_iv", [] { return freshBytes(1); }, valuecheck::iv, Effect::WithPeers},
        // Of nat-relay-agent; the relay does not read them.
        {"nat_introduction_server", nullptr, checkServer, Effect::WithPeers},
        {"nat_introduction_token", nullptr, valuecheck::longKey, Effect::WithPeers},
        {"nat_introduction_key", nullptr, valuecheck::longKey, Effect::WithPeers}};
    return rules;
}

const SettingRule *SettingRule::find(const QString &name)
{
    const auto rule = std::find_if(all().cbegin(), all().cend(), [&name](const SettingRule &candidate) {
        return name == QLatin1String(candidate.name);
    });
    return rule == all().cend() ? nullptr : &*rule;
}
