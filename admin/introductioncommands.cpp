// The commands that bind the box to a rendezvous server, where its peers call it.

#include "admin/commands.h"
#include "admin/print.h"
#include "handover/endpoint.h"
#include "handover/valuecheck.h"
#include "introduction/secrets.h"
#include "store/boxstore.h"

namespace
{
const QLatin1String server("nat_introduction_server");
const QLatin1String token("nat_introduction_token");
const QLatin1String key("nat_introduction_key");
} // namespace

QString admin::join(const Request &request)
{
    const QStringList words = request.words.join(QLatin1Char(' ')).simplified().split(QLatin1Char(' '));
    const Endpoint endpoint = Endpoint::ofServer(words.constFirst());
    // The token is not shown, nor what may be one.
    if (words.size() != 2 || !endpoint.error.isEmpty() || !valuecheck::longKey(words.at(1), QString()).isEmpty())
        return QStringLiteral("the line must be HOST:PORT and 64 hexadecimal digits, as nat-rendezvousd token UUID "
                              "prints it at the server");
    const BoxStore store;
    const auto before = store.settings();
    QMap<QString, QString> settings{{server, words.at(0)}, {token, words.at(1)}};
    // Another one would make the files of all peers worthless.
    if (!valuecheck::longKey(before.value(key), QString()).isEmpty())
        settings.insert(key, QString::fromStdString(introduction::textOf(introduction::freshKey())));
    if (valuecheck::isHostName(endpoint.host)) { // the relay's own registration goes there too
        settings.insert(QStringLiteral("server_hostname"), endpoint.host);
        settings.insert(QStringLiteral("nat_server_udpport"), QString::number(endpoint.port));
    }
    if (store.error().isEmpty())
        store.put(settings);
    if (!store.error().isEmpty())
        return store.error();
    const QString was = before.value(server);
    QString text = QStringLiteral("Joined %1. A running nat-relay-agent takes it over within 20 s.\n").arg(words.at(0));
    if (!was.isEmpty() && (was != words.at(0) || before.value(token) != words.at(1)))
        text += QStringLiteral("Peers that were added at %1 cannot call here: add them anew.\n").arg(was);
    return print(text.toLocal8Bit());
}

QString admin::leave(const Request & /*request*/)
{
    const BoxStore store;
    const QString was = store.settings().value(server);
    if (store.error().isEmpty() && was.isEmpty())
        return QStringLiteral("the box has joined no rendezvous server");
    if (store.error().isEmpty())
        store.put({{server, QLatin1String("")}, {token, QLatin1String("")}});
    if (!store.error().isEmpty())
        return store.error();
    return print(QStringLiteral("Left %1. A running nat-relay-agent stops within 20 s.\n").arg(was).toLocal8Bit());
}
