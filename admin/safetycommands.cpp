// The commands that keep what is in the store safe.

#include "admin/commands.h"
#include "admin/print.h"
#include "store/backup.h"
#include "store/schemaversion.h"

#include <storeurl.h>

namespace
{
StoreUrl namedStore()
{
    return StoreUrl::parse(qEnvironmentVariable("BOX_DATABASE"));
}

/// When a running relay has what was taken over.
QString consequences(const backup::Restored &restored)
{
    if (restored.isNew)
        return QStringLiteral("The store is new: start nat-relayd.");
    QString text = QStringLiteral("A running relay takes them over within 20 s");
    if (restored.isPortChanged)
        text += QStringLiteral(", a listening port at its next start");
    text += QLatin1Char('.');
    if (restored.removedPeers > 0)
        text +=
            QStringLiteral(" Peers that went (%1) it keeps in memory until its restart.").arg(restored.removedPeers);
    return text;
}
} // namespace

QString admin::backup(const Request &request)
{
    const QString &file = request.words.at(0);
    QString error = ::backup::make(namedStore(), file);
    return error.isEmpty()
               ? print(QStringLiteral("Wrote %1, which holds the key of all peers.\n").arg(file).toLocal8Bit())
               : error;
}

QString admin::restore(const Request &request)
{
    const QString &file = request.words.at(0);
    const auto restored = ::backup::restore(namedStore(), file);
    if (!restored.error.isEmpty())
        return restored.error;
    return print(
        QStringLiteral("Took over settings (%1) and peers (%2) of %3. %4\n")
            .arg(QString::number(restored.settings), QString::number(restored.peers), file, consequences(restored))
            .toLocal8Bit());
}

QString admin::upgrade(const Request & /*request*/)
{
    const auto upgrade = schemaversion::upgrade(namedStore());
    if (!upgrade.error.isEmpty())
        return upgrade.error;
    const bool isPresent = upgrade.from == schemaversion::present();
    return print(QStringLiteral("The store has version %1 of the tables%2.\n")
                     .arg(QString::number(schemaversion::present()),
                          isPresent ? QStringLiteral(" already") : QStringLiteral(" now"))
                     .toLocal8Bit());
}
