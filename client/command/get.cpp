// get: prints one page.

#include "client/command/command.h"
#include "client/commandline.h"
#include "client/endsignals.h"
#include "client/http/fetch.h"
#include "client/progressline.h"
#include "client/tell.h"

#include <QCoreApplication>
#include <QRegularExpression>

int command::get(const Job &job)
{
    const QString target = job.line.argument();
    static const QRegularExpression printable(QStringLiteral("\\A/[!-~]*\\z"));
    if (!printable.match(target).hasMatch())
        return complain(QStringLiteral("the path must begin with / and hold no spaces; encode others than ASCII "
                                       "characters as %XX"));
    constexpr int roomForFields = 200;
    if (target.size() > RelayClient::longestRequest - roomForFields)
        return complain(
            QStringLiteral("the path is too long: a request must fit into %1 bytes").arg(RelayClient::longestRequest));
    ProgressLine progress;
    Fetch fetch(job.client, job.line.isSet("include"), !job.line.isSet("fail"));
    QObject::connect(&fetch, &Fetch::progressed,
                     [&progress](const RelayClient::Traffic &traffic) { progress.show(traffic); });
    QObject::connect(&fetch, &Fetch::finished, [&progress](const QString &error) {
        progress.clear();
        QCoreApplication::exit(error.isEmpty() ? 0 : complain(error));
    });
    const EndSignals signals_([&fetch] { fetch.interrupt(); });
    const auto begin = [&] { fetch.get(target); };
    QMetaObject::invokeMethod(&fetch, begin, Qt::QueuedConnection); // it may end at once, which the event loop must see
    return QCoreApplication::exec();
}
