// serve: lets any browser reach the box.

#include "client/command/command.h"
#include "client/commandline.h"
#include "client/endsignals.h"
#include "client/http/httpproxy.h"
#include "client/path/boxpath.h"
#include "client/progressline.h"
#include "client/status.h"
#include "client/statustext.h"
#include "client/tell.h"
#include "handover/endpoint.h"

#include <QCoreApplication>
#include <QJsonDocument>

int command::serve(const Job &job)
{
    const QString address = job.line.text("listen");
    const bool isVerbose = job.line.isSet("verbose");
    const Endpoint listen = Endpoint::ofAddress(address);
    if (!listen.error.isEmpty() || listen.port == Endpoint::noPort)
        return complain(QStringLiteral("--listen must be an address and a port, like 127.0.0.1:8080"));
    const Status status(job.peer, job.path, job.client);
    const auto ownPage = [&status](const QByteArray &path) -> std::optional<OwnPage> {
        const QByteArray name = path.mid(static_cast<int>(sizeof HttpProxy::ownPath) - 1);
        if (name == "status")
            return OwnPage{"text/html; charset=utf-8", statustext::page(status.json())};
        if (name == "status.json")
            return OwnPage{"application/json", QJsonDocument(status.json()).toJson()};
        return std::nullopt;
    };
    HttpProxy proxy(job.client, {job.line.number("queue"), isVerbose, ownPage});
    if (!proxy.listen(QHostAddress(listen.host), static_cast<quint16>(listen.port)))
        return complain(QStringLiteral("cannot listen on %1: %2; choose another one with --listen")
                            .arg(address, proxy.errorString()));
    ProgressLine progress;
    QObject::connect(&proxy, &HttpProxy::progressed, [&progress, isVerbose](const RelayClient::Traffic &traffic) {
        if (isVerbose)
            progress.show(traffic);
    });
    QObject::connect(&proxy, &HttpProxy::logged, [&progress](const QString &text) {
        progress.clear();
        tell(text);
    });

    const EndSignals signals_([&job] { job.client->leave(); });
    QObject::connect(job.client, &RelayClient::left, [] { QCoreApplication::exit(0); });

    QObject::connect(job.path, &BoxPath::opened,
                     [&job] { tell(QStringLiteral("the box answers, ") + job.path->record().summary()); });
    QObject::connect(job.path, &BoxPath::moved, [&job] {
        tell(QStringLiteral("a better way has opened: the box is reached ") + job.path->record().summary());
    });
    QObject::connect(job.path, &BoxPath::failed, &proxy, [&proxy](const QString &reason) {
        if (!proxy.isBusy()) // or the request that fails tells
            tell(reason);
    });
    tell(QStringLiteral("open http://%1/ in a browser; Ctrl-C ends").arg(address));
    job.path->open(); // what is wrong is told now, not at the first request
    return QCoreApplication::exec();
}
