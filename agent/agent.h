#pragma once

#include "agent/boxsettings.h"
#include "agent/bursts.h"
#include "agent/callbook.h"
#include "agent/doorkeeper.h"
#include "agent/onlyone.h"
#include "agent/registration.h"
#include "agent/relaywatch.h"
#include "agent/sharedport.h"
#include "introduction/allowance.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <memory>
#include <optional>

/// The box's side of the introduction: keeps the box registered, and sees to the calls that come from there.
class Agent : public QObject
{
    Q_OBJECT

public:
    explicit Agent(QObject *parent = nullptr);

    /// Reads the settings, takes changed ones over, and registers again.
    void refresh();

private:
    void begin();
    void take(const QByteArray &bytes);
    void meet(const Guest &guest);
    void knock(const Guest &guest) const;
    Moment now() const { return Moment(m_clock.elapsed()); }

    QElapsedTimer m_clock;
    QTimer m_refresh;
    OnlyOne m_onlyOne;
    BoxSettings m_settings;
    SharedPort m_port;
    Bursts m_bursts;
    CallBook m_callBook;
    std::optional<Doorkeeper> m_doorkeeper; // as the settings are
    std::unique_ptr<Registration> m_registration;
    RelayWatch m_relayWatch;
};
