// status: tells how the box is reached. A nat-peer that serves here knows most, and is asked; else a path is opened for
// a moment. Nothing is asked of the relay then, so that it need not be told good-bye.

#include "client/status.h"
#include "client/command/command.h"
#include "client/commandline.h"
#include "client/http/httpproxy.h"
#include "client/path/boxpath.h"
#include "client/statustext.h"
#include "client/tell.h"
#include "handover/endpoint.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds serverPatience = 2s; // on this machine
constexpr auto lookSpacing = 100ms;
constexpr std::chrono::milliseconds measureLimit = 3s;  // for a knock and its echo, a second after the path opens
constexpr std::chrono::milliseconds improveLimit = 10s; // for a direct way

/// Empty where none of this peer serves there.
QJsonObject askServer(const Endpoint &listen, const PeerFile &peer)
{
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(listen.host);
    url.setPort(listen.port);
    url.setPath(QLatin1String(HttpProxy::ownPath) + QStringLiteral("status.json"));
    QNetworkAccessManager network;
    network.setProxy(QNetworkProxy::NoProxy);
    network.setTransferTimeout(static_cast<int>(serverPatience.count()));
    QNetworkReply *reply = network.get(QNetworkRequest(url)); // the manager's
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    QJsonObject status = QJsonDocument::fromJson(reply->readAll()).object();
    return Status::isOf(status, peer) ? status : QJsonObject();
}

/// Opens a path and gives it some time to be measured and to become a direct one.
QJsonObject openAndLook(BoxPath *path, const PeerFile &peer)
{
    const Status status(peer, path, nullptr);
    QElapsedTimer sinceOpen;
    QEventLoop loop;
    QTimer look;
    QObject::connect(path, &BoxPath::progress, &loop, tell);
    QObject::connect(path, &BoxPath::failed, &loop, &QEventLoop::quit, Qt::QueuedConnection);
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (!sinceOpen.isValid() && path->record().phase() == PathRecord::Phase::Open)
            sinceOpen.start();
        const auto limit = path->isImproving() ? improveLimit : measureLimit;
        const bool isDone = path->record().roundTrip() && !path->isImproving();
        if (sinceOpen.isValid() && (isDone || sinceOpen.hasExpired(limit.count())))
            loop.quit();
    });
    look.start(lookSpacing);
    path->open();
    loop.exec();
    return status.json();
}

int print(const QJsonObject &status, bool isForPrograms)
{
    const QByteArray text =
        isForPrograms ? QJsonDocument(status).toJson(QJsonDocument::Compact) + '\n' : statustext::plain(status);
    const auto length = static_cast<std::size_t>(text.size());
    if (std::fwrite(text.constData(), 1, length, stdout) != length || std::fflush(stdout) != 0)
        return complain(QStringLiteral("cannot write to standard output: ") + qt_error_string());
    return status[QStringLiteral("state")] == QLatin1String("open") ? 0 : 1;
}
} // namespace

int command::status(const Job &job)
{
    const Endpoint listen = Endpoint::ofAddress(job.line.text("listen"));
    if (!listen.error.isEmpty() || listen.port == Endpoint::noPort)
        return complain(QStringLiteral("--listen must be an address and a port, like 127.0.0.1:8080"));
    const bool isForPrograms = job.line.isSet("json");
    const QJsonObject known = askServer(listen, job.peer);
    if (!known.isEmpty())
        return print(known, isForPrograms);
    BoxPath path(job.peer, job.line.pathOptions(job.peer));
    if (!path.error().isEmpty())
        return complain(path.error());
    return print(openAndLook(&path, job.peer), isForPrograms);
}
