#pragma once

#include "client/path/discovery.h"
#include "handover/peerfile.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUdpSocket>

#include <chrono>
#include <memory>

/// The way of the datagrams between a peer and its box: finds the box, enciphers, keeps the path open, follows a box
/// whose address changes and, if asked to, opens a path through routers that change ports (address- and port-dependent
/// mapping, RFC 4787). Lives in the event loop of its thread; blocks only while the box's name is looked up.
class BoxPath : public QObject
{
    Q_OBJECT

public:
    struct Options {
        quint16 udpPort = 0;                // local port; 0: any
        std::chrono::seconds keepAlive{15}; // routers forget a silent path, some after 30 s
        std::chrono::seconds openLimit{10}; // how long the box may take to answer
        bool punch = false;                 // go on to more ports and sockets while the box does not answer
        int datagramsPerMinute = 20000;     // at most so many until it answers
    };

    /// Opens nothing yet. A local port that cannot be used is told by error().
    BoxPath(const PeerFile &peer, const Options &options, QObject *parent = nullptr);

    /// Not empty: the local UDP port cannot be used; one line that says why.
    const QString &error() const { return m_error; }

    /// Looks the box up anew and knocks until it answers; opened() or failed() follows.
    void open();
    /// Whether the box was heard not long ago.
    bool isFresh() const;
    /// Sends one datagram, enciphered. Only once the path has been open.
    void send(const QByteArray &plain);

signals:
    void opened();
    void failed(const QString &reason);
    /// A datagram from the box to this peer, deciphered.
    void received(const QByteArray &plain);
    /// What is tried next, for a person to read.
    void progress(const QString &text);

private:
    struct Knock {
        int socket; // its place in the list
        int offset; // from the box's port
    };

    bool addSocket(quint16 port);
    void lookUp();
    void discover();
    void aimAt(const QList<QHostAddress> &addresses, quint16 port);
    void tick();
    void beginStep(int step);
    void planRound();
    void knockAsPlanned();
    void knock(QUdpSocket *socket, const QHostAddress &address, quint16 port);
    void readDatagrams(QUdpSocket *socket);
    void take(const QByteArray &plain);
    bool isTarget(const QHostAddress &address) const;
    void settle();
    void stopOpening();
    void giveUp();
    void keepAlive();

    const QString m_uuid;
    const QString m_boxUuid;
    const Endpoint m_box;
    const QByteArray m_key;
    const QByteArray m_iv;
    const Options m_options;
    QString m_error;
    QList<QUdpSocket *> m_sockets;  // the first one has the local port that was asked for
    QUdpSocket *m_socket = nullptr; // where the box was heard last, and from which address
    QHostAddress m_address;
    quint16 m_port = 0;
    bool m_isOpening = false;
    QList<QHostAddress> m_targets; // where the box should be
    quint16 m_targetPort = 0;
    std::unique_ptr<Discovery> m_discovery;
    int m_undeciphered = 0; // datagrams since the path was last open
    QTimer m_ticks;
    QTimer m_keepAlive;
    QElapsedTimer m_sinceOpening;
    QElapsedTimer m_sinceHeard;
    QElapsedTimer m_sinceSend;
    QElapsedTimer m_sinceKnock; // of ours, where the box was heard
    int m_step = 0;
    QElapsedTimer m_sinceStep;
    QElapsedTimer m_sinceRound;
    QList<Knock> m_plan;    // of the round that is under way
    double m_allowance = 0; // datagrams that may be sent now
    QElapsedTimer m_sinceAllowance;
};
