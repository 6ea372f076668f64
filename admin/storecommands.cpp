// The commands that make the store and change its settings.

#include "admin/commands.h"
#include "admin/print.h"
#include "store/boxstore.h"
#include "store/newstore.h"
#include "store/settingrules.h"

#include <QJsonObject>

#include <storeurl.h>

namespace
{
/// Without the name that was given: somebody may have put the key in its place.
QString unknownSetting()
{
    QStringList names;
    for (const SettingRule &rule : SettingRule::all())
        names.append(QString::fromLatin1(rule.name));
    return QStringLiteral("there is no setting of that name; there are ") + names.join(QLatin1String(", "));
}

/// The relay would read only one of two sockets on the same port.
QString otherListeningPort(const QString &name)
{
    static const QString port = QStringLiteral("nat_udpport");
    return name == port ? QStringLiteral("nat_udpportdiscover") : port;
}

QByteArray consequence(SettingRule::Effect effect)
{
    switch (effect) {
    case SettingRule::Effect::AtStart:
        return "A listening port takes effect at the next start of nat-relayd.";
    case SettingRule::Effect::WithPeers:
        return "A running relay takes it over within 20 s; change it in every peer's file too.";
    case SettingRule::Effect::Soon:
        break;
    }
    return "A running relay takes it over within 20 s.";
}
} // namespace

QString admin::init(const Request & /*request*/)
{
    const StoreUrl url = StoreUrl::parse(qEnvironmentVariable("BOX_DATABASE"));
    QString error = makeStore(url);
    if (!error.isEmpty())
        return error;
    return print(QStringLiteral("Made the store %1 with a fresh UUID, key and IV. Name the rendezvous server next:\n"
                                "nat-relay-admin set server_hostname NAME\n")
                     .arg(url.shown)
                     .toLocal8Bit());
}

QString admin::get(const Request &request)
{
    const QString name = request.words.value(0);
    if (!name.isEmpty() && SettingRule::find(name) == nullptr)
        return unknownSetting();
    const BoxStore store;
    const auto settings = store.settings();
    if (!store.error().isEmpty())
        return store.error();
    if (!name.isEmpty() && !settings.contains(name))
        return QStringLiteral("%1 is not set; use nat-relay-admin set %1 VALUE").arg(name);

    QJsonObject object;
    QList<QStringList> rows;
    for (const SettingRule &rule : SettingRule::all()) {
        const QString key = QString::fromLatin1(rule.name);
        if (!name.isEmpty() && key != name)
            continue;
        object.insert(key, settings.contains(key) ? QJsonValue(settings.value(key)) : QJsonValue());
        rows.append({key, settings.value(key, QStringLiteral("(not set)"))});
    }
    if (request.isSet("json"))
        return print(toJson(QJsonDocument(object)));
    return print(name.isEmpty() ? toTable(rows) : toTable({{settings.value(name)}}));
}

QString admin::set(const Request &request)
{
    const QString &name = request.words.at(0);
    const QString &value = request.words.at(1);
    const SettingRule *rule = SettingRule::find(name);
    if (rule == nullptr)
        return unknownSetting();
    QString error = rule->check(value, name);
    if (!error.isEmpty())
        return error;
    const BoxStore store;
    const auto settings = store.settings();
    if (rule->effect == SettingRule::Effect::AtStart && store.error().isEmpty()) {
        const QString other = otherListeningPort(name);
        if (settings.value(other).toInt() == value.toInt())
            return QStringLiteral("%1 must be another port than %2, which is %3").arg(name, other, value);
    }
    if (store.error().isEmpty())
        store.put({{name, value}});
    if (!store.error().isEmpty())
        return store.error();

    return print(name.toLatin1() + " is set. " + consequence(rule->effect) + '\n');
}
