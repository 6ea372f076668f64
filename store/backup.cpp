// Part of a store in use stands in a log beside it, so a copy of the file alone would lack what was written last.

#include "store/backup.h"

#include "store/growingfile.h"
#include "store/newstore.h"
#include "store/owner.h"
#include "store/schemaversion.h"
#include "store/storeconnection.h"
#include "store/storecontent.h"

#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

#include <algorithm>

namespace
{
/// mysqldump and mysql have the same name and use in every version of the server.
QString refuseServer(const StoreUrl &store, const QString &use)
{
    if (!store.error.isEmpty())
        return QStringLiteral("%1: %2").arg(store.shown, store.error);
    return store.path.isEmpty() ? QStringLiteral("%1 is no file: use %2").arg(store.shown, use) : QString();
}

/// A file that nobody writes; a store in use is none, and its log would not be read.
StoreContent readBackup(const StoreUrl &store, const QString &file)
{
    const AsCaller asCaller;
    StoreContent content;
    for (const char *rest : {"-wal", "-journal"}) {
        if (QFileInfo(file + QLatin1String(rest)).size() > 0)
            content.error = QStringLiteral("part of %1 is in %1%2, as of a store in use; take a copy that BOX_DATABASE="
                                           "sqlite:%1 nat-relay-admin backup makes of it")
                                .arg(file, QLatin1String(rest));
    }
    struct stat ofFile = {};
    struct stat ofStore = {};
    if (stat(QFile::encodeName(file).constData(), &ofFile) == 0 &&
        stat(QFile::encodeName(store.path).constData(), &ofStore) == 0 && ofFile.st_dev == ofStore.st_dev &&
        ofFile.st_ino == ofStore.st_ino)
        content.error = QStringLiteral("%1 is the store itself; name a copy of it").arg(file);
    if (!content.error.isEmpty())
        return content;
    content = StoreContent::read(QFileInfo(file).absoluteFilePath());
    if (!content.error.isEmpty())
        content.error = QStringLiteral("%1 is no copy of a store: %2").arg(file, content.error);
    return content;
}

bool changesPorts(const StoreContent &content, const QList<QStringList> &before)
{
    return std::any_of(before.cbegin(), before.cend(), [&content](const QStringList &setting) {
        return content.setting(setting.at(0).toLatin1().constData()) != setting.at(1);
    });
}

/// False when the connection has an error.
bool replaceContent(StoreConnection *store, const StoreContent &content, backup::Restored *restored)
{
    if (!store->open() || !store->run(QStringLiteral("BEGIN IMMEDIATE")))
        return false;
    const auto ports = store->rows(
        QStringLiteral("SELECT name, value FROM settings WHERE name IN ('nat_udpport', 'nat_udpportdiscover')"));
    const auto peers = store->rows(QStringLiteral("SELECT remote_uuid FROM nat_traverse"));
    restored->isPortChanged = changesPorts(content, ports);
    const auto wanted = content.peerUuids();
    restored->removedPeers =
        static_cast<int>(std::count_if(peers.cbegin(), peers.cend(), [&wanted](const QStringList &peer) {
            return !wanted.contains(peer.constFirst());
        }));
    return content.putInto(store) && store->run(QStringLiteral("COMMIT"));
}
} // namespace

QString backup::make(const StoreUrl &store, const QString &file)
{
    QString error = refuseServer(store, QStringLiteral("mysqldump --single-transaction --databases box >FILE"));
    if (!error.isEmpty())
        return error;
    if (file.isEmpty())
        return QStringLiteral("backup must name a new file");
    // Its log is opened with the first read, as the owner; the copy belongs to who called.
    StoreConnection source(store);
    if (!source.open() || !source.run(QStringLiteral("SELECT name FROM settings LIMIT 1")))
        return QStringLiteral("cannot read %1: %2").arg(store.shown, source.error());
    const AsCaller asCaller;
    GrowingFile copy(file);
    error = copy.error();
    if (error.isEmpty() && !source.run(QStringLiteral("VACUUM INTO ?"), {copy.growingPath()}))
        error = source.error();
    if (error.isEmpty())
        error = StoreContent::read(copy.growingPath()).error; // what could not be restored is no backup
    if (error.isEmpty() && !copy.keep())
        error = copy.error();
    return error.isEmpty() ? QString() : QStringLiteral("cannot make %1: %2").arg(file, error);
}

backup::Restored backup::restore(const StoreUrl &store, const QString &file)
{
    Restored restored;
    restored.error = refuseServer(store, QStringLiteral("mysql box <FILE, with a FILE that mysqldump has written"));
    if (!restored.error.isEmpty())
        return restored;
    const StoreContent content = readBackup(store, file);
    restored.error = content.error;
    if (!restored.error.isEmpty())
        return restored;
    restored.settings = content.settings.size();
    restored.peers = content.peers.size();
    restored.isNew = !QFile::exists(store.path);
    if (restored.isNew) {
        restored.error = makeStore(store, &content);
        return restored;
    }
    restored.error = schemaversion::upgrade(store).error;
    if (!restored.error.isEmpty())
        return restored;
    StoreConnection connection(store);
    if (!replaceContent(&connection, content, &restored))
        restored.error = QStringLiteral("cannot change %1: %2").arg(store.shown, connection.error());
    return restored;
}
