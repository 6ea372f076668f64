#pragma once

#include "introduction/messages.h"

#include <QString>

#include <optional>

/// One peer's row in the store's table, which belongs to the relay: nothing of it is kept here.
struct PeerRow {
    QString uuid; // as it is written there, and so in datagrams; empty: there is none
    bool isConnected = false;

    /// Nothing where the store does not answer.
    static std::optional<PeerRow> of(const introduction::Uuid &peer);
};

/// Where the relay is to send its two runs of datagrams to: to the port behind `udpPort`, and around `udpPortRemote`.
struct Route {
    QString address;
    int udpPort;
    int udpPortRemote;
};

/// Asks the relay to connect to the peer there. Where `always` is false, a peer that has connected meanwhile is left
/// alone.
void askForConnection(const QString &peer, const Route &route, bool always);
