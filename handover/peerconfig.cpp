// Reads and checks the peer's configuration. Key and IV never show in a message.

#include "handover/peerconfig.h"

#include "handover/endpoint.h"
#include "handover/valuecheck.h"

#include <QFile>
#include <QSettings>

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
    const QString address = text("box/address");
    Endpoint box;
    if (!address.isEmpty()) {
        box = Endpoint::ofBox(address);
        config.boxHost = box.host;
        config.boxPort = static_cast<quint16>(box.port);
    }
    config.key = QByteArray::fromHex(text("box/key").toLatin1());
    config.iv = QByteArray::fromHex(text("box/iv").toLatin1());

    QString error = valuecheck::firstError({valuecheck::uuid(config.uuid, QStringLiteral("uuid in [peer]")),
                                            valuecheck::uuid(config.boxUuid, QStringLiteral("uuid in [box]")),
                                            box.error, valuecheck::key(text("box/key"), QStringLiteral("key in [box]")),
                                            valuecheck::iv(text("box/iv"), QStringLiteral("iv in [box]"))});
    if (error.isEmpty() && config.uuid == config.boxUuid)
        error = QStringLiteral("uuid in [peer] must be the peer's own, not the box's");
    if (!error.isEmpty())
        config.error = QStringLiteral("%1: %2").arg(path, error);
    return config;
}
