#pragma once

#include "introduction/allowance.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

#include <chrono>
#include <optional>

/// Notices when the relay must be started anew, which it does not notice itself. Its periods are those of the wall
/// clock and stand still when that is set back, for as long as it was set back; and whatever else may hold it up shows
/// in its own registrations, which no longer arrive. Where the web server is away they do not either, by design.
class RelayWatch : public QObject
{
    Q_OBJECT

public:
    explicit RelayWatch(QObject *parent = nullptr);

    /// From an answer of the rendezvous server to the agent: how long ago the relay itself registered there, if that is
    /// known; and where the server gives none any more.
    void onAnswer(std::optional<std::chrono::seconds> relayAge);
    void onSilence() { m_answered.reset(); }
    /// Where it is another server from now on.
    void forget();

    /// Call it every few seconds, with the interval at which the relay registers; 0: not at that server.
    void look(std::chrono::seconds interval);

    /// By how much the wall clock was set back since it was looked at last; 0 where it is too little to matter.
    std::chrono::seconds setBack(std::chrono::milliseconds wall, std::chrono::milliseconds steady);

signals:
    void mustRestart(const QString &why);

private:
    void lookAtRegistrations(std::chrono::seconds interval);
    Moment now() const { return Moment(m_clock.elapsed()); }

    QElapsedTimer m_clock;
    std::optional<std::chrono::milliseconds> m_offset; // of the wall clock
    std::optional<Moment> m_relaySeen;
    std::optional<Moment> m_answered; // since then, without a break
    std::optional<Moment> m_webAnswered;
    std::optional<Moment> m_restarted; // for the registrations' sake
    QTcpSocket m_web;                  // busy: asked, and not answered yet
};
