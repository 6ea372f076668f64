#pragma once

#include <QString>

struct StoreUrl;

/// Copies of a store in SQLite, made and taken back while programs use it.
namespace backup
{
/// Writes a consistent copy, which restore() takes, to a new file that only its owner may read.
/// Returns empty text, or one line that says what went wrong; then there is no file.
QString make(const StoreUrl &store, const QString &file);

struct Restored {
    QString error; // not empty: one line; the store is as it was
    bool isNew = false;
    int settings = 0;
    int peers = 0;
    int removedPeers = 0;
    bool isPortChanged = false; // a listening port's
};
/// Gives the store the settings and peers of such a copy, all at once; makes it where there is none.
Restored restore(const StoreUrl &store, const QString &file);
} // namespace backup
