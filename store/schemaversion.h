#pragma once

#include <QString>

class StoreConnection;
struct StoreUrl;

/// The number that a store has for the form of its tables, and how it gets from one to the next.
namespace schemaversion
{
/// What this program makes and knows.
int present();
/// The first one with names of peers.
constexpr int withNames = 2;

/// Of a store that is open; 0 for one that has no number, which was made before there were any.
int of(StoreConnection *store);

/// Empty text for a version that this program knows, or what is wrong.
QString check(int version);

struct Upgrade {
    QString error; // not empty: one line; the store is as it was, but for whole steps in MariaDB
    int from = 0;
};
/// Takes a store to the present version.
Upgrade upgrade(const StoreUrl &store);
} // namespace schemaversion
