#pragma once

#include "agent/doorkeeper.h"
#include "introduction/allowance.h"

#include <QHash>
#include <QObject>
#include <QString>

#include <functional>
#include <map>

/// Has the relay send its bursts to guests that do not get through otherwise, and only so often: the server chooses the
/// address that they go to.
class Bursts : public QObject
{
    Q_OBJECT

public:
    explicit Bursts(std::function<Moment()> now, QObject *parent = nullptr);

    /// A guest that was knocked at just now.
    void attend(const Guest &guest);

private:
    struct Used {
        Allowance atOnce;
        Allowance inAnHour;
    };

    void ask(const Guest &guest);

    const std::function<Moment()> m_now;
    QHash<QString, Guest> m_waiting; // by UUID: as each called last
    std::map<QString, Used> m_used;
    Allowance m_usedByAll;
};
