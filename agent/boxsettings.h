#pragma once

#include "handover/endpoint.h"
#include "introduction/secrets.h"

#include <QByteArray>
#include <QString>

#include <chrono>

/// What the agent needs to know of its box, as the store has it.
struct BoxSettings {
    QString error; // not empty: why the box cannot be registered, and what to do
    QString uuid;
    quint16 udpPort = 0; // the relay's
    QByteArray aesKey;
    QByteArray aesIv;
    QString server; // HOST:PORT
    Endpoint endpoint;
    std::chrono::seconds relayInterval{0}; // at which the relay registers there too; 0: elsewhere
    introduction::Uuid box = {};
    introduction::Key token = {};
    introduction::Key callKey = {};

    /// What a store says that does not answer: what it said last.
    static BoxSettings read();

    bool operator==(const BoxSettings &other) const;
    bool operator!=(const BoxSettings &other) const { return !(*this == other); }
};
