#include "agent/agent.h"

#include "agent/addresses.h"
#include "agent/relayservice.h"
#include "agent/tell.h"
#include "protocol/cipher.h"
#include "protocol/datagram.h"

#include <logger.h>

#include <QCoreApplication>

#include <algorithm>

using introduction::Address;
using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::seconds refreshSpacing = 20s; // some routers forget a silent mapping after 30 s
} // namespace

Agent::Agent(QObject *parent)
    : QObject(parent), m_bursts([this] { return now(); }), m_callBook([this] { return now(); })
{
    m_clock.start();
    connect(&m_port, &SharedPort::received, this, &Agent::take);
    connect(&m_relayWatch, &RelayWatch::mustRestart, this, [](const QString &why) {
        Logger::logError(QStringLiteral("AGENT"),
                         why + (endRelay() ? QStringLiteral(" It is started anew.") : QStringLiteral(" Restart it.")));
    });
    connect(&m_refresh, &QTimer::timeout, this, &Agent::refresh);
    m_refresh.start(refreshSpacing);
    m_settings.error = QStringLiteral("not read yet");
    QTimer::singleShot(0, this, &Agent::refresh);
}

void Agent::refresh()
{
    const BoxSettings settings = BoxSettings::read();
    if (settings != m_settings) {
        if (m_registration)
            tell(QStringLiteral("The settings have changed."));
        m_settings = settings;
        begin();
    }
    m_relayWatch.look(m_settings.relayInterval);
    if (m_registration)
        m_registration->refresh(m_doorkeeper->nonce(now()));
}

/// Anew, with the settings as they are.
void Agent::begin()
{
    m_registration.reset();
    m_relayWatch.forget();
    m_doorkeeper.reset();
    m_port.close();
    if (m_settings.server.isEmpty())
        return tell(m_settings.error); // a box need not have one
    if (!m_settings.error.isEmpty())
        return tellError(m_settings.error);
    if (!m_onlyOne.take(m_settings.udpPort)) {
        tellError(QStringLiteral("Another nat-relay-agent shares UDP port %1 already, and one is enough.")
                      .arg(m_settings.udpPort));
        return QCoreApplication::exit(1);
    }
    m_callBook.showAt(m_onlyOne.socket());
    m_doorkeeper.emplace(m_settings);
    m_registration = std::make_unique<Registration>(m_settings, &m_port);
    connect(m_registration.get(), &Registration::answered, &m_relayWatch, &RelayWatch::onAnswer);
    connect(m_registration.get(), &Registration::unanswered, &m_relayWatch, &RelayWatch::onSilence);
    connect(m_registration.get(), &Registration::moved, &m_relayWatch, &RelayWatch::forget);
}

void Agent::take(const QByteArray &bytes)
{
    const std::string_view view(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    m_registration->take(view);
    const auto decision = m_doorkeeper->take(view, now());
    if (!decision)
        return;
    if (decision->guest)
        meet(*decision->guest); // first: a knock opens the box's router for what the answer brings
    m_port.sendToServer(decision->reply);
}

void Agent::meet(const Guest &guest)
{
    m_callBook.note(guest);
    if (guest.openWay)
        return; // what a knock brings now would only disturb
    knock(guest);
    m_bursts.attend(guest);
}

/// One datagram at each place where the guest may be. Like those of the relay's bursts it comes from the relay's port,
/// and opens the way for what the guest sends there.
void Agent::knock(const Guest &guest) const
{
    const QByteArray plain = datagram::link(DatagramKind::ConnectRequest, m_settings.uuid, guest.uuid);
    const QByteArray knock = cipher::encipher(plain, m_settings.aesKey, m_settings.aesIv);
    std::vector<Address> places{guest.seen};
    places.insert(places.end(), guest.own.cbegin(), guest.own.cend());
    if (guest.relayed)
        places.push_back(*guest.relayed);
    for (auto place = places.cbegin(); place != places.cend(); ++place) {
        if (mayBeAimedAt(*place) && std::find(places.cbegin(), place, *place) == place)
            m_port.sendTo(*place, knock);
    }
}
