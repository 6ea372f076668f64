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

// In the order of the file. What is empty is left out.
constexpr Field fields[] = {{"peer", "uuid", &PeerFile::uuid},
                            {"box", "uuid", &PeerFile::boxUuid},
                            {"box", "address", &PeerFile::address},
                            {"box", "key", &PeerFile::key},
                            {"box", "iv", &PeerFile::iv},
                            {"introduction", "server", &PeerFile::server},
                            {"introduction", "token", &PeerFile::token},
                            {"introduction", "key", &PeerFile::callKey}};
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
    QStringList errors{valuecheck::uuid(uuid, QStringLiteral("uuid in [peer]")), valuecheck::uuid(boxUuid, names.uuid),
                       box().error, valuecheck::key(key, names.key), valuecheck::iv(iv, names.iv)};
    if (!(server + token + callKey).isEmpty()) {
        const QString where = QStringLiteral(" in [introduction]");
        errors += {Endpoint::ofServer(server).error, valuecheck::longKey(token, QStringLiteral("token") + where),
                   valuecheck::longKey(callKey, QStringLiteral("key") + where)};
    }
    const QString wrong = valuecheck::firstError(errors);
    return wrong.isEmpty() && uuid == boxUuid ? QStringLiteral("uuid in [peer] must be the peer's own, not the box's")
                                              : wrong;
}

Endpoint PeerFile::box() const
{
    return address.isEmpty() ? Endpoint() : Endpoint::ofBox(address);
}

Endpoint PeerFile::rendezvous() const
{
    return server.isEmpty() ? Endpoint() : Endpoint::ofServer(server);
}

QByteArray PeerFile::toIni() const
{
    QString text;
    QLatin1String section;
    for (const Field &field : fields) {
        const QString &value = this->*field.value;
        if (value.isEmpty())
            continue;
        if (section != QLatin1String(field.section)) {
            section = QLatin1String(field.section);
            text += QStringLiteral("[%1]\n").arg(section);
        }
        text += QStringLiteral("%1=%2\n").arg(QLatin1String(field.key), value);
    }
    return text.toUtf8();
}

QByteArray PeerFile::toJson() const
{
    QJsonObject sections;
    for (const Field &field : fields) {
        const QString &value = this->*field.value;
        if (value.isEmpty())
            continue;
        QJsonObject section = sections.value(QLatin1String(field.section)).toObject();
        section.insert(QLatin1String(field.key), value);
        sections.insert(QLatin1String(field.section), section);
    }
    return QJsonDocument(sections).toJson();
}
