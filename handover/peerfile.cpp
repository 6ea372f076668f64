// Writes what a peer is handed, on the box, and reads it, on the peer's machine.

#include "handover/peerfile.h"

#include "handover/valuecheck.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>

namespace
{
struct Field {
    const char *section;
    const char *key;
    QString PeerFile::*value;
};

// In the order of the file. An address that is empty is left out.
constexpr Field fields[] = {{"peer", "uuid", &PeerFile::uuid},
                            {"box", "uuid", &PeerFile::boxUuid},
                            {"box", "address", &PeerFile::address},
                            {"box", "key", &PeerFile::key},
                            {"box", "iv", &PeerFile::iv}};
} // namespace

PeerFile PeerFile::read(const QString &path)
{
    PeerFile peer;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        peer.error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return peer;
    }
    const QSettings ini(path, QSettings::IniFormat);
    for (const Field &field : fields) {
        const QString name = QStringLiteral("%1/%2").arg(QLatin1String(field.section), QLatin1String(field.key));
        peer.*field.value = ini.value(name).toString().trimmed();
    }
    const QString error =
        peer.check({QStringLiteral("uuid in [box]"), QStringLiteral("key in [box]"), QStringLiteral("iv in [box]")});
    if (!error.isEmpty())
        peer.error = QStringLiteral("%1: %2").arg(path, error);
    return peer;
}

QString PeerFile::check(const Names &names) const
{
    const QString wrong = valuecheck::firstError({valuecheck::uuid(uuid, QStringLiteral("uuid in [peer]")),
                                                  valuecheck::uuid(boxUuid, names.uuid), box().error,
                                                  valuecheck::key(key, names.key), valuecheck::iv(iv, names.iv)});
    return wrong.isEmpty() && uuid == boxUuid ? QStringLiteral("uuid in [peer] must be the peer's own, not the box's")
                                              : wrong;
}

Endpoint PeerFile::box() const
{
    return address.isEmpty() ? Endpoint() : Endpoint::ofBox(address);
}

QByteArray PeerFile::toIni() const
{
    QString text;
    QLatin1String section;
    for (const Field &field : fields) {
        if (section != QLatin1String(field.section)) {
            section = QLatin1String(field.section);
            text += QStringLiteral("[%1]\n").arg(section);
        }
        if (const QString &value = this->*field.value; !value.isEmpty())
            text += QStringLiteral("%1=%2\n").arg(QLatin1String(field.key), value);
    }
    return text.toUtf8();
}

QByteArray PeerFile::toJson() const
{
    QJsonObject sections;
    for (const Field &field : fields) {
        QJsonObject section = sections.value(QLatin1String(field.section)).toObject();
        if (const QString &value = this->*field.value; !value.isEmpty())
            section.insert(QLatin1String(field.key), value);
        sections.insert(QLatin1String(field.section), section);
    }
    return QJsonDocument(sections).toJson();
}
