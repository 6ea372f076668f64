#pragma once

#include <QList>
#include <QMap>
#include <QString>

/// A row of the table of peers.
struct StoredPeer {
    static constexpr int noPort = -1; // the relay sends nothing there
    static constexpr int connected = 1;
    static constexpr int connectRequested = 2;

    QString uuid;
    QString address = QLatin1String(""); // empty: none, the relay sends nothing
    int status = 0;                      // as in the schema
    int udpPort = noPort;                // the relay sends a run of requests to the port behind this one
    int udpPortRemote = noPort;          // and one to each port around this one
    QString name;                        // for people; of no two peers the same, empty: it has none

    /// Whether a burst of the relay would go anywhere.
    bool isReachable() const;
};

/// The store that BOX_DATABASE names, for one command: what is wrong with it is kept instead of logged.
class BoxStore
{
public:
    BoxStore();

    /// Not empty: the first use that failed, in one line. Results are worth nothing then.
    QString error() const;

    QMap<QString, QString> settings() const;
    /// Changes or adds them, all or none.
    void put(const QMap<QString, QString> &settings) const;

    QList<StoredPeer> peers() const;
    void addPeer(const StoredPeer &peer) const;
    /// Its name alone.
    void namePeer(const StoredPeer &peer) const;
    /// All but its name.
    void changePeer(const StoredPeer &peer) const;
    void removePeer(const QString &uuid) const;

    /// Of a setting: which programs on the box may read it.
    static QString accessKeyOf(const QString &setting);
};
