#pragma once

#include "agent/doorkeeper.h"
#include "introduction/allowance.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSocketNotifier>

#include <functional>
#include <memory>

/// What the peers said in their last calls, for the box's owner. It is kept in memory alone, as a box should not write
/// at every call, and shown to other programs of the same user.
class CallBook : public QObject
{
    Q_OBJECT

public:
    explicit CallBook(std::function<Moment()> now, QObject *parent = nullptr);

    /// A guest that calls just now.
    void note(const Guest &guest);

    /// Shows it from now on to whoever connects to this socket, which belongs to the caller.
    void showAt(int socket);

private:
    struct Entry {
        Moment called{0};
        introduction::Address from; // as the server saw it; none where it called by TCP
        std::optional<introduction::OpenWay> way;
        Moment wayOpened{0};
    };

    QJsonObject contents() const;
    void show() const;

    const std::function<Moment()> m_now;
    QHash<QString, Entry> m_entries; // by UUID
    std::unique_ptr<QSocketNotifier> m_notifier;
};

/// What the agent that shares this port shows, an object for each peer that has called since its start:
///   {UUID: {"call_seconds": AGO, "called_from": TEXT, "way": TEXT, "way_seconds": AGO}, ...}
/// The second is missing where it called by TCP, the others where it has not told how it reaches the box. Empty where
/// no agent runs, or one of another user.
QJsonObject askCallBook(quint16 port);
