#pragma once

#include "introduction/messages.h"

#include <QHostAddress>

#include <vector>

/// Addresses as the introduction writes them and as Qt does: an IPv4 address is an IPv4-mapped one there, and none here.
introduction::Address addressOf(const QHostAddress &host, quint16 port);
QHostAddress hostOf(const introduction::Address &address);
/// With the port, for a person.
QString textOf(const introduction::Address &address);

/// Whether somebody else may name it as his own and have datagrams sent there: it is that of one machine, not of this one
/// alone, and not one of those that mean another machine in each network, such as a cloud's metadata.
bool mayBeAimedAt(const introduction::Address &address);

/// Where this machine is on its own networks and over IPv6, as peers can write it.
std::vector<introduction::Address> ownAddresses(quint16 port);
