#pragma once

#include <QString>

struct StoreContent;
struct StoreUrl;

/// Makes the store with working settings, among them a fresh UUID, key and IV, and no peers. All or nothing: a store
/// that is there already stays as it is, and one that cannot be finished goes again. With a content, which SQLite alone
/// takes, it has that instead.
/// Returns empty text, or one line that says what went wrong.
QString makeStore(const StoreUrl &store, const StoreContent *content = nullptr);
