// Writes what a peer is handed, on the box, and reads it, on the peer's machine.

#include "handover/peerfile.h"

#include "handover/valuecheck.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QUrl>
#include <QUrlQuery>

namespace
{
enum class Kind { Uuid, Place, Secret };

struct Field {
    const char *section;
    const char *key;
    const char *inLink;
    Kind kind;
    QString PeerFile::*value;
};

// In the order of the file. What is empty is left out.
constexpr Field fields[] = {{"peer", "uuid", "peer", Kind::Uuid, &PeerFile::uuid},
                            {"box", "uuid", "box", Kind::Uuid, &PeerFile::boxUuid},
                            {"box", "address", "address", Kind::Place, &PeerFile::address},
                            {"box", "key", "key", Kind::Secret, &PeerFile::key},
                            {"box", "iv", "iv", Kind::Secret, &PeerFile::iv},
                            {"introduction", "server", "server", Kind::Place, &PeerFile::server},
                            {"introduction", "token", "token", Kind::Secret, &PeerFile::token},
                            {"introduction", "key", "call", Kind::Secret, &PeerFile::callKey}};

const QLatin1String linkScheme("nat-peer");
const QLatin1String linkVersion("1");

PeerFile::Names namesInFile()
{
    return {QStringLiteral("uuid in [box]"), QStringLiteral("key in [box]"), QStringLiteral("iv in [box]")};
}
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
    const QString error = peer.check(namesInFile());
    if (!error.isEmpty())
        peer.error = QStringLiteral("%1: %2").arg(path, error);
    return peer;
}

PeerFile PeerFile::ofLink(const QString &text)
{
    PeerFile peer;
    const QUrl link(text.trimmed(), QUrl::StrictMode);
    if (link.scheme() != linkScheme) {
        peer.error = QStringLiteral("this is no link of a peer: one begins with %1:%2?").arg(linkScheme, linkVersion);
        return peer;
    }
    if (link.path() != linkVersion) {
        peer.error = QStringLiteral("the link must be of version %1, and this one is of another: use a nat-peer that "
                                    "is as new as the box's programs")
                         .arg(linkVersion);
        return peer;
    }
    const QUrlQuery open(link);
    const QUrlQuery secret(link.fragment(QUrl::FullyEncoded));
    for (const Field &field : fields) {
        const QUrlQuery &part = field.kind == Kind::Secret ? secret : open;
        const QString value = part.queryItemValue(QLatin1String(field.inLink), QUrl::FullyDecoded);
        peer.*field.value = field.kind == Kind::Uuid ? QLatin1Char('{') + value + QLatin1Char('}') : value;
    }
    const QString error = peer.check(namesInFile());
    if (!error.isEmpty())
        peer.error = QStringLiteral("the link must be copied whole, up to its end: %1").arg(error);
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

QByteArray PeerFile::toLink() const
{
    QByteArray open;
    QByteArray secret;
    for (const Field &field : fields) {
        QString value = this->*field.value;
        if (value.isEmpty())
            continue;
        if (field.kind == Kind::Uuid)
            value = value.mid(1, value.size() - 2); // the braces would have to be encoded
        QByteArray &part = field.kind == Kind::Secret ? secret : open;
        part += (part.isEmpty() ? "" : "&") + QByteArray(field.inLink) + '=' + QUrl::toPercentEncoding(value, ":");
    }
    return linkScheme.latin1() + (':' + QByteArray(linkVersion.latin1())) + '?' + open + '#' + secret;
}
