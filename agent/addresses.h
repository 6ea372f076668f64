#pragma once

#include "introduction/messages.h"

#include <QtGlobal>

#include <vector>

/// Whether somebody else may name it as his own and have datagrams sent there: it is that of one machine, not of this
/// one alone, and not one of those that mean another machine in each network, such as a cloud's metadata.
bool mayBeAimedAt(const introduction::Address &address);

/// Where this machine is on its own networks and over IPv6, as peers can write it.
std::vector<introduction::Address> ownAddresses(quint16 port);
