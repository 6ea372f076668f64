#include "agent/boxsettings.h"

#include "core/hostcalls.h"

#include <database.h>

#include <tuple>

namespace
{
template <typename Value> Value valueOf(std::optional<Value> value, const char *complaint, QString *error)
{
    if (!value && error->isEmpty())
        *error = QString::fromLatin1(complaint);
    return value.value_or(Value());
}
} // namespace

BoxSettings BoxSettings::read()
{
    Database database(QStringLiteral("Agent"));
    const auto text = [&database](const char *name) {
        return database.getSetting(QString::fromLatin1(name), hostcalls::accessKey());
    };
    BoxSettings settings;
    settings.uuid = text("uuid");
    settings.udpPort = text("nat_udpport").toUShort();
    settings.aesKey = QByteArray::fromHex(text("aes_key").toLatin1());
    const QByteArray iv = QByteArray::fromHex(text("aes_iv").toLatin1());
    settings.aesIv = iv.mid(0, iv.indexOf('\0')); // as the relay reads it; -1: the whole of it
    settings.server = text("nat_introduction_server");
    settings.endpoint = Endpoint::ofServer(settings.server);
    if (database.getSetting(QStringLiteral("server_hostname"), hostcalls::noAccessKey()) == settings.endpoint.host &&
        text("nat_server_udpport").toInt() == settings.endpoint.port)
        settings.relayInterval = std::chrono::seconds(text("nat_server_update_interval").toInt());

    if (settings.server.isEmpty())
        settings.error = QStringLiteral("The box has joined no rendezvous server; nat-relay-admin join makes it one.");
    else if (!settings.endpoint.error.isEmpty())
        settings.error = QStringLiteral("nat_introduction_server in the store: ") + settings.endpoint.error;
    else if (settings.udpPort == 0)
        settings.error = QStringLiteral("nat_udpport in the store must be a port.");
    settings.box = valueOf(introduction::uuidOf(settings.uuid.toStdString()),
                           "uuid in the store must be a UUID in braces.", &settings.error);
    settings.token =
        valueOf(introduction::keyOf(text("nat_introduction_token").toStdString()),
                "The store has no token for the rendezvous server; use nat-relay-admin join 'LINE'.", &settings.error);
    settings.callKey = valueOf(introduction::keyOf(text("nat_introduction_key").toStdString()),
                               "The store has no key for calls; use nat-relay-admin join 'LINE'.", &settings.error);
    return settings;
}

bool BoxSettings::operator==(const BoxSettings &other) const
{
    const auto all = [](const BoxSettings &settings) {
        return std::tie(settings.error, settings.uuid, settings.udpPort, settings.aesKey, settings.aesIv,
                        settings.server, settings.relayInterval, settings.token, settings.callKey);
    };
    return all(*this) == all(other);
}
