#pragma once

#include "introduction/messages.h"

#include <QString>

#include <vector>

/// One side of a path: the addresses that it has itself, and those at which others have seen it.
struct Side {
    std::vector<introduction::Address> own;
    std::vector<introduction::Address> seen;
};

struct Sides {
    Side peer;
    Side box;
};

/// What a side's router makes of UDP ports (RFC 4787, 4.1 and 4.2).
enum class Translation { Unknown, None, KeepsPort, OnePort, PortPerDestination };

/// As far as what has been seen tells.
Translation translationOf(const Side &side);
/// For a person: what the router does.
QString textOf(Translation translation);
/// For programs: one word.
QString nameOf(Translation translation);
