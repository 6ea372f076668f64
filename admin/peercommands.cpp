// The commands that list, add, connect and remove peers.

#include "admin/commands.h"
#include "admin/print.h"
#include "admin/qrcode.h"
#include "agent/callbook.h"
#include "handover/endpoint.h"
#include "handover/output.h"
#include "handover/peerfile.h"
#include "handover/valuecheck.h"
#include "introduction/secrets.h"
#include "store/boxstore.h"
#include "store/owner.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QUuid>

#include <unistd.h>

#include <algorithm>
#include <optional>

namespace
{
QString statusInWords(int status)
{
    static const QStringList words{QStringLiteral("disconnected"), QStringLiteral("connected"),
                                   QStringLiteral("connect requested"), QStringLiteral("connecting")};
    return words.value(status, QStringLiteral("unknown (%1)").arg(status));
}

QString portInWords(int port)
{
    return port == StoredPeer::noPort ? QStringLiteral("-") : QString::number(port);
}

// Of what the agent shows.
const QLatin1String wayKey("way");
const QLatin1String waySecondsKey("way_seconds");
const QLatin1String callSecondsKey("call_seconds");
const QLatin1String callerKey("called_from");

/// In the largest unit of which there is one.
QString timeInWords(int seconds)
{
    constexpr int minute = 60;
    constexpr int hour = 60 * minute;
    constexpr int day = 24 * hour;
    if (seconds < minute)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < hour)
        return QStringLiteral("%1 min").arg(seconds / minute);
    return seconds < day ? QStringLiteral("%1 h").arg(seconds / hour) : QStringLiteral("%1 d").arg(seconds / day);
}

QString wayInWords(const QJsonObject &call)
{
    return call.contains(wayKey)
               ? QStringLiteral("%1 for %2")
                     .arg(call.value(wayKey).toString(), timeInWords(call.value(waySecondsKey).toInt()))
               : QStringLiteral("-");
}

QString callInWords(const QJsonObject &call)
{
    if (!call.contains(callSecondsKey))
        return QStringLiteral("-");
    const QString time = timeInWords(call.value(callSecondsKey).toInt());
    return call.contains(callerKey) ? QStringLiteral("%1 ago from %2").arg(time, call.value(callerKey).toString())
                                    : QStringLiteral("%1 ago by TCP").arg(time);
}

/// The row of the peer with this UUID or name, or an error.
StoredPeer findPeer(const BoxStore &store, const QString &word, QString *error)
{
    const auto peers = store.peers();
    const auto peer = std::find_if(peers.cbegin(), peers.cend(), [&word](const StoredPeer &row) {
        return row.uuid == word || (row.name == word && !word.isEmpty());
    });
    *error = store.error();
    if (peer != peers.cend())
        return *peer;
    if (error->isEmpty() && word.startsWith(QLatin1Char('{')))
        *error = valuecheck::uuid(word, QStringLiteral("the peer"));
    if (error->isEmpty())
        *error = QStringLiteral("there is no peer %1; nat-relay-admin peers lists those there are").arg(word);
    return StoredPeer();
}

/// Empty text, or why no peer but this one may get this name.
QString checkName(const BoxStore &store, const StoredPeer &named)
{
    const auto peers = store.peers();
    const QString error = valuecheck::firstError({valuecheck::peerName(named.name), store.error()});
    const bool isTaken = std::any_of(peers.cbegin(), peers.cend(), [&named](const StoredPeer &peer) {
        return peer.name == named.name && peer.uuid != named.uuid;
    });
    return error.isEmpty() && isTaken ? QStringLiteral("another peer has the name %1 already").arg(named.name) : error;
}

/// For a person to know it again.
QString inWords(const StoredPeer &peer)
{
    return peer.name.isEmpty() ? peer.uuid : QStringLiteral("%1, %2").arg(peer.name, peer.uuid);
}

/// The relay sends one run to the port behind udpPort and one to the ports around udpPortRemote: both reach this one.
void setRoute(StoredPeer *peer, const Endpoint &endpoint)
{
    peer->address = endpoint.host;
    peer->udpPort = endpoint.port == Endpoint::noPort ? StoredPeer::noPort : endpoint.port - 1;
    peer->udpPortRemote = endpoint.port == Endpoint::noPort ? StoredPeer::noPort : endpoint.port;
}

/// What the peer needs to call the box; nothing where the box has joined no rendezvous server.
void addIntroduction(PeerFile *file, const QMap<QString, QString> &settings)
{
    const auto bytes = [&settings](const char *name) {
        return settings.value(QString::fromLatin1(name)).toStdString();
    };
    const auto boxToken = introduction::keyOf(bytes("nat_introduction_token"));
    const auto boxKey = introduction::keyOf(bytes("nat_introduction_key"));
    const auto peer = introduction::uuidOf(file->uuid.toStdString());
    if (!boxToken || !boxKey || !peer)
        return;
    file->server = settings.value(QStringLiteral("nat_introduction_server"));
    if (file->server.isEmpty())
        return;
    file->token = QString::fromStdString(introduction::textOf(introduction::peerToken(*boxToken, *peer)));
    file->callKey = QString::fromStdString(introduction::textOf(introduction::callKey(*boxKey, *peer)));
}

PeerFile newPeerFile(const BoxStore &store, const QString &boxAddress)
{
    const auto settings = store.settings();
    PeerFile file;
    file.error = store.error();
    file.uuid = QUuid::createUuid().toString();
    file.boxUuid = settings.value(QStringLiteral("uuid"));
    file.address = boxAddress;
    file.key = settings.value(QStringLiteral("aes_key"));
    file.iv = settings.value(QStringLiteral("aes_iv"));
    addIntroduction(&file, settings);
    if (file.error.isEmpty())
        file.error = file.check({QStringLiteral("uuid in the store"), QStringLiteral("aes_key in the store"),
                                 QStringLiteral("aes_iv in the store")});
    return file;
}

/// What root hands over is a file of root's, though the store may be another user's.
struct CallersOutput {
    explicit CallersOutput(const QString &path)
    {
        const AsCaller asCaller;
        output.emplace(path);
    }
    ~CallersOutput()
    {
        const AsCaller asCaller;
        output.reset(); // which removes a file that is not whole
    }
    CallersOutput(const CallersOutput &) = delete;
    CallersOutput &operator=(const CallersOutput &) = delete;

    std::optional<Output> output;
};

/// What stands for the file, as the options want it.
QByteArray handedOver(const admin::Request &request, const PeerFile &file, const StoredPeer &peer)
{
    if (request.isSet("link"))
        return file.toLink() + '\n';
    if (request.isSet("qr"))
        return toQrCode(file.toLink(), isatty(STDOUT_FILENO) != 0) + "Added peer " + inWords(peer).toUtf8() +
               ". The code holds the key of all peers.\n";
    return request.isSet("json") && request.values.value(QStringLiteral("out")).isNull() ? file.toJson() : file.toIni();
}

/// Where a new peer is, from the options given; without them nowhere.
Endpoint endpointOf(const admin::Request &request)
{
    const QString address = request.values.value(QStringLiteral("address"));
    const QString port = request.values.value(QStringLiteral("port"));
    Endpoint endpoint;
    if (!address.isNull())
        endpoint = Endpoint::ofPeer(address);
    if (port.isNull() || !endpoint.error.isEmpty())
        return endpoint;
    if (address.isNull() || endpoint.port != Endpoint::noPort)
        endpoint.error = QStringLiteral("--port belongs to an --address without a port");
    endpoint.port = Endpoint::portOf(port);
    if (endpoint.error.isEmpty() && endpoint.port == Endpoint::noPort)
        endpoint.error = QStringLiteral("--port must be a port from 1 to 65535");
    return endpoint;
}
} // namespace

QString admin::peers(const Request &request)
{
    const BoxStore store;
    const auto stored = store.peers();
    const auto port = store.settings().value(QStringLiteral("nat_udpport")).toUShort();
    if (!store.error().isEmpty())
        return store.error();
    const QJsonObject calls = askCallBook(port);
    QJsonArray array;
    QList<QStringList> rows{{QStringLiteral("uuid"), QStringLiteral("name"), QStringLiteral("address"),
                             QStringLiteral("udp_port"), QStringLiteral("udp_port_remote"), QStringLiteral("status"),
                             QStringLiteral("way"), QStringLiteral("last call")}};
    for (const StoredPeer &peer : stored) {
        const QString status = statusInWords(peer.status);
        QJsonObject call = calls.value(peer.uuid).toObject();
        if (peer.status != StoredPeer::connected) { // any more
            call.remove(wayKey);
            call.remove(waySecondsKey);
        }
        array.append(QJsonObject{{QStringLiteral("uuid"), peer.uuid},
                                 {QStringLiteral("name"), peer.name},
                                 {QStringLiteral("address"), peer.address},
                                 {QStringLiteral("udp_port"), peer.udpPort},
                                 {QStringLiteral("udp_port_remote"), peer.udpPortRemote},
                                 {QStringLiteral("status"), status},
                                 {wayKey, call.value(wayKey)},
                                 {waySecondsKey, call.value(waySecondsKey)},
                                 {callSecondsKey, call.value(callSecondsKey)},
                                 {callerKey, call.value(callerKey)}});
        rows.append({peer.uuid, peer.name.isEmpty() ? QStringLiteral("-") : peer.name,
                     peer.address.isEmpty() ? QStringLiteral("-") : peer.address, portInWords(peer.udpPort),
                     portInWords(peer.udpPortRemote), status, wayInWords(call), callInWords(call)});
    }
    return print(request.isSet("json") ? toJson(QJsonDocument(array)) : toTable(rows));
}

QString admin::addPeer(const Request &request)
{
    const Endpoint endpoint = endpointOf(request);
    const QString boxAddress = request.values.value(QStringLiteral("box-address"));
    const QString boxError = boxAddress.isNull() ? QString() : Endpoint::ofBox(boxAddress).error;
    for (const QString &error : {endpoint.error, boxError}) {
        if (!error.isEmpty())
            return error;
    }
    const BoxStore store;
    const PeerFile file = newPeerFile(store, boxAddress);
    if (!file.error.isEmpty())
        return file.error;
    StoredPeer peer;
    peer.uuid = file.uuid;
    peer.name = request.words.value(0);
    QString nameError = request.words.isEmpty() ? QString() : checkName(store, peer);
    if (!nameError.isEmpty())
        return nameError;
    const QString path = request.values.value(QStringLiteral("out"));
    if (!path.isNull() && path.isEmpty()) // an empty variable of a script must not put the key on its terminal
        return QStringLiteral("--out must name a new file");
    if ((request.isSet("link") || request.isSet("qr")) && request.flags.size() + (path.isNull() ? 0 : 1) > 1)
        return QStringLiteral("--link and --qr each go alone, without one another, --out or --json");
    CallersOutput callers(path);
    Output &handover = *callers.output;
    if (!handover.error().isEmpty())
        return handover.error();

    if (!endpoint.host.isEmpty())
        setRoute(&peer, endpoint);
    store.addPeer(peer);
    if (!store.error().isEmpty())
        return store.error();
    if (!handover.write(handedOver(request, file, peer))) {
        store.removePeer(peer.uuid); // nobody could use it
        return store.error().isEmpty() ? handover.error()
                                       : QStringLiteral("%1; and peer %2 stays in the store: %3")
                                             .arg(handover.error(), peer.uuid, store.error());
    }
    if (path.isEmpty())
        return QString();
    if (request.isSet("json"))
        return print(toJson(QJsonDocument(QJsonObject{{QStringLiteral("peer"), peer.uuid},
                                                      {QStringLiteral("name"), peer.name},
                                                      {QStringLiteral("file"), path}})));
    return print(QStringLiteral("Added peer %1. Hand over %2, which holds the key of all peers.\n")
                     .arg(inWords(peer), path)
                     .toLocal8Bit());
}

QString admin::namePeer(const Request &request)
{
    const BoxStore store;
    QString error;
    StoredPeer peer = findPeer(store, request.words.at(0), &error);
    peer.name = request.words.at(1);
    if (error.isEmpty())
        error = checkName(store, peer);
    if (!error.isEmpty())
        return error;
    store.namePeer(peer);
    return store.error().isEmpty() ? print("Named peer " + inWords(peer).toLocal8Bit() + ".\n") : store.error();
}

QString admin::connectPeer(const Request &request)
{
    const QString address = request.values.value(QStringLiteral("address"));
    const Endpoint endpoint = address.isNull() ? Endpoint() : Endpoint::ofPeer(address);
    if (!endpoint.error.isEmpty())
        return endpoint.error;
    if (!address.isNull() && endpoint.port == Endpoint::noPort)
        return QStringLiteral("--address must be IP:PORT here: the relay calls the peer there");
    const BoxStore store;
    QString error;
    StoredPeer peer = findPeer(store, request.words.at(0), &error);
    if (!error.isEmpty())
        return error;
    if (!address.isNull())
        setRoute(&peer, endpoint);
    if (!peer.isReachable())
        return QStringLiteral("the store has no way to peer %1; add --address IP:PORT").arg(inWords(peer));
    peer.status = StoredPeer::connectRequested;
    store.changePeer(peer);
    if (!store.error().isEmpty())
        return store.error();
    return print("The relay is asked to connect to peer " + inWords(peer).toLocal8Bit() +
                 "; nat-relay-admin peers shows how it goes.\n");
}

QString admin::removePeer(const Request &request)
{
    const BoxStore store;
    QString error;
    const StoredPeer peer = findPeer(store, request.words.at(0), &error);
    if (!error.isEmpty())
        return error;
    store.removePeer(peer.uuid);
    if (!store.error().isEmpty())
        return store.error();
    return print("Removed peer " + inWords(peer).toLocal8Bit() +
                 ". A running relay keeps it in memory until its restart, and the peer keeps the key.\n");
}
