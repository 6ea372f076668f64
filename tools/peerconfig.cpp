// Reads and checks the peer's configuration. Key and IV never show in a message.

#include "tools/peerconfig.h"

#include "protocol/cipher.h"
#include "protocol/uuidscan.h"

#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QUrl>

namespace
{
bool isUuid(const QString &text)
{
    return datagram::findUuids(text.toUtf8()).constFirst() == text && !text.isEmpty();
}

QString checkUuid(const QString &text, const QString &name)
{
    return isUuid(text)
               ? QString()
               : QStringLiteral("%1 must be a UUID in braces like {01234567-89ab-cdef-0123-456789abcdef}").arg(name);
}

QString checkHex(const QString &text, const QString &name)
{
    static const QRegularExpression hex(QStringLiteral("\\A[0-9a-fA-F]{%1}\\z").arg(2 * cipher::blockLength));
    return hex.match(text).hasMatch()
               ? QString()
               : QStringLiteral("%1 must be %2 hexadecimal digits").arg(name).arg(2 * cipher::blockLength);
}

QString checkAddress(const QUrl &address)
{
    const bool isLeftOut = address.toString() == QLatin1String("udp://");
    return isLeftOut || (!address.host().isEmpty() && address.port() > 0)
               ? QString()
               : QStringLiteral("address in [box] must be host:port, an IPv6 address in brackets; without it the box "
                                "is looked for on the local network");
}

QString firstOf(const QStringList &errors)
{
    for (const QString &error : errors) {
        if (!error.isEmpty())
            return error;
    }
    return QString();
}
} // namespace

PeerConfig PeerConfig::read(const QString &path)
{
    PeerConfig config;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        config.error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return config;
    }
    const QSettings ini(path, QSettings::IniFormat);
    const auto text = [&ini](const char *name) { return ini.value(QString::fromLatin1(name)).toString().trimmed(); };
    config.uuid = text("peer/uuid");
    config.boxUuid = text("box/uuid");
    const QUrl address(QStringLiteral("udp://") + text("box/address"), QUrl::StrictMode);
    config.boxHost = address.host();
    config.boxPort = static_cast<quint16>(address.port(0));
    config.key = QByteArray::fromHex(text("box/key").toLatin1());
    config.iv = QByteArray::fromHex(text("box/iv").toLatin1());

    QString error = firstOf({checkUuid(config.uuid, QStringLiteral("uuid in [peer]")),
                             checkUuid(config.boxUuid, QStringLiteral("uuid in [box]")), checkAddress(address),
                             checkHex(text("box/key"), QStringLiteral("key in [box]")),
                             checkHex(text("box/iv"), QStringLiteral("iv in [box]"))});
    if (error.isEmpty() && config.uuid == config.boxUuid)
        error = QStringLiteral("uuid in [peer] must be the peer's own, not the box's");
    if (error.isEmpty() && config.iv.contains('\0'))
        error = QStringLiteral("iv in [box] must hold no byte 00: the box cuts it there and would not encipher");
    if (!error.isEmpty())
        config.error = QStringLiteral("%1: %2").arg(path, error);
    return config;
}
