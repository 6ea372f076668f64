#pragma once

#include <QString>

struct StoreUrl;

/// Makes the store with working settings, among them a fresh UUID, key and IV, and no peers. All or nothing: a store
/// that is there already stays as it is, and one that cannot be finished goes again.
/// Returns empty text, or one line that says what went wrong.
QString makeStore(const StoreUrl &store);
