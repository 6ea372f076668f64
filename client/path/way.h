#pragma once

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

    /// Begins to look for the box; found() or failed() may follow at once, and found() more than once.
    virtual void begin() = 0;
    /// The path is open, or given up: looks no further.
    virtual void end() {}
    /// Why nobody may have answered by now, where this way knows better than that the box is silent; else empty.
    virtual QString silence() const { return QString(); }

signals:
    /// The box should be at one of these addresses, and no longer at those before.
    void found(const QList<QHostAddress> &addresses, quint16 port);
    /// This way leads nowhere; one line that says why.
    void failed(const QString &reason);
};
