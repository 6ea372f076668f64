#pragma once

#include "client/path/knockplan.h"
#include "client/path/pathrecord.h"
#include "client/path/socketpool.h"
#include "client/path/stunprobe.h"
#include "client/path/turnchannel.h"
#include "client/path/udpchannel.h"
#include "client/path/way.h"
#include "handover/peerfile.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>
#include <memory>

/// The way of the datagrams between a peer and its box: knocks where the box should be until it answers, enciphers,
/// keeps the path open and follows a box whose address changes. All ways to find it race; where a server's carrying is
/// what opens first, it goes on to look for a direct way and moves there. Lives in the event loop of its thread; blocks
/// only while the box's name is looked up.
class BoxPath : public QObject
{
    Q_OBJECT

public:
    struct Options {
        quint16 udpPort = 0;                // local port; 0: always the same for a peer, any where that is taken
        std::chrono::seconds keepAlive{15}; // routers forget a silent path, some after 30 s
        std::chrono::seconds openLimit{10}; // how long the box may take to answer
        bool punch = false;                 // go on to more ports and sockets while the box does not answer
        int datagramsPerMinute = 20000;     // at most so many until it answers
    };

    /// Opens nothing yet. A local port that cannot be used is told by error().
    BoxPath(const PeerFile &peer, const Options &options, QObject *parent = nullptr);

    /// Not empty: the local UDP port cannot be used; one line that says why.
    const QString &error() const { return m_error; }

    /// Looks for the box anew and knocks until it answers; opened() or failed() follows.
    void open();
    /// Whether the box was heard not long ago.
    bool isFresh() const;
    /// Sends one datagram, enciphered. Only once the path has been open.
    void send(const QByteArray &plain);
    /// Asks the box for an echo, where the path has been open.
    void keepAlive();
    /// For how long the box has not been heard, in ms.
    qint64 sinceHeard() const { return m_sinceHeard.elapsed(); }
    /// How the box is reached, and what was tried.
    const PathRecord &record() const { return m_record; }
    /// Open, and still looking for a direct way.
    bool isImproving() const { return m_isImproving; }
    /// Why nobody may have answered by now, the likeliest cause.
    QString silence() const;

signals:
    void opened();
    void failed(const QString &reason);
    /// An open path has found a better way, on which it goes on.
    void moved();
    /// A datagram from the box to this peer, deciphered.
    void received(const QByteArray &plain);
    /// What is tried next, for a person to read.
    void progress(const QString &text);

private:
    void addWay(Way *way);
    void aim();
    void useCarrier(const TurnAccount &account);
    void retireCarrier();
    void drop(TurnChannel *carrier);
    void release(TurnChannel *carrier);
    void probe(const TurnAccount &account);
    void tick();
    void nextStep();
    void knock(Channel *channel, const QHostAddress &address, quint16 port);
    void hear(Channel *channel, const QByteArray &data, const QHostAddress &from, quint16 port);
    void take(Channel *channel, const QByteArray &plain, const QHostAddress &from, quint16 port);
    void takeEcho(Channel *channel, const QHostAddress &from, quint16 port);
    void settle();
    void noteOpen();
    void move(Channel *channel, const QHostAddress &address, quint16 port);
    void stopKnocking();
    void tellWays();
    void giveUp(const QString &reason);

    const QString m_uuid;
    const QString m_boxUuid;
    const QByteArray m_key;
    const QByteArray m_iv;
    const Options m_options;
    QString m_error;
    QList<Way *> m_ways; // all at the same time
    int m_waysLeft = 0;  // that have not failed
    QHash<Way *, QList<Target>> m_found;
    KnockPlan m_plan;
    SocketPool m_sockets; // the first one has the local port that was asked for
    TurnChannel *m_carrier = nullptr;
    TurnChannel *m_retired = nullptr; // the one before the path was opened anew
    std::unique_ptr<StunProbe> m_probe;
    Channel *m_channel = nullptr; // where the box was heard last, and from which address
    QHostAddress m_address;
    quint16 m_port = 0;
    bool m_isOpening = false;
    bool m_isImproving = false;
    int m_undeciphered = 0; // datagrams since the path was last open
    QTimer m_ticks;
    QTimer m_keepAlive;
    QElapsedTimer m_sinceOpening;
    QElapsedTimer m_sinceHeard;
    QElapsedTimer m_sinceSend;
    QElapsedTimer m_sinceKnock; // of ours, where the box was heard
    PathRecord m_record;
};
