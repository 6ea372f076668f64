#pragma once

#include "client/path/boxpath.h"
#include "handover/peerfile.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>

#include <deque>

class RelayClient;

/// How the box is reached, as an object for programs; statustext.h makes of it what a person reads.
class Status : public QObject
{
    Q_OBJECT

public:
    /// `client`: whose responses are counted; null: nobody's. All must outlive it.
    Status(const PeerFile &peer, const BoxPath *path, const RelayClient *client, QObject *parent = nullptr);

    /// Whether an object is a status of this peer with this box.
    static bool isOf(const QJsonObject &status, const PeerFile &peer);

    QJsonObject json() const;

private:
    void count(qint64 bytes);
    qint64 rate() const;

    struct Piece {
        qint64 time; // ms since the beginning
        qint64 bytes;
    };

    const PeerFile &m_peer;
    const BoxPath *m_path;
    QElapsedTimer m_clock;
    std::deque<Piece> m_lately; // the oldest first
    qint64 m_received = 0;      // bytes
};
