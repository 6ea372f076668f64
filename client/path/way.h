#pragma once

#include "client/path/sides.h"
#include "client/path/target.h"
#include "client/path/turnaccount.h"
#include "introduction/messages.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>

/// One way to learn where the box can be met, begun anew at every opening of the path. It sends nothing to the box
/// itself: the path knocks at what the way finds.
class Way : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// What it asks, for a person to read.
    virtual QString name() const = 0;
    /// Begins to look for the box; found() or failed() may follow at once, and found() more than once.
    virtual void begin() = 0;
    /// The path is open, or given up: looks no further.
    virtual void end() {}
    /// A datagram that came to the path's first socket. Whether it was for this way, and not from the box.
    virtual bool take(const QByteArray & /*data*/, const QHostAddress & /*from*/, quint16 /*port*/) { return false; }
    /// The box has not answered for a while, and is knocked at in other ways from now on.
    virtual void help() {}
    /// Datagrams to this address and port are carried to the path.
    virtual void useRelayed(const QHostAddress & /*address*/, quint16 /*port*/) {}
    /// Nobody carries any more.
    virtual void loseCarrier() {}
    /// The path is open, this way.
    virtual void opened(introduction::OpenWay /*way*/) {}
    /// Why nobody may have answered by now, where this way knows better than that the box is silent; else empty.
    virtual QString silence() const { return QString(); }

signals:
    /// The box should be at one of these, and no longer at those that this way told before.
    void found(const QList<Target> &targets);
    /// Who would carry datagrams where no direct way opens.
    void carrierFound(const TurnAccount &account);
    /// How others see the two sides.
    void sighted(const Sides &sides);
    /// This way leads nowhere; one line that says why.
    void failed(const QString &reason);
};
