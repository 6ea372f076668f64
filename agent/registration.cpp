// The server forgets a box after a minute or so, and most routers forget a mapping after half a one: so this goes on as
// long as the program runs. Where the server does not answer it is looked up anew and the port is opened anew, as the
// network may have become another one without a sign of it.

#include "agent/registration.h"

#include "agent/addresses.h"
#include "agent/tell.h"
#include "introduction/hostaddress.h"

#include <QNetworkInterface>

#include <algorithm>
#include <chrono>
#include <cmath>

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds firstPatience = 500ms; // for an answer
constexpr double patienceGrowth = 1.5;                     // with each that does not come, for the first few
constexpr int growingSilences = 10;
constexpr std::chrono::milliseconds mostPatience = 20s;
constexpr int patientSilences = 6; // then the server is looked for anew
constexpr int mostChallenges = 3;  // that are met for one refresh

std::chrono::milliseconds patience(int silences)
{
    const double growth = std::pow(patienceGrowth, std::min(silences, growingSilences));
    return std::min(std::chrono::milliseconds(std::llround(firstPatience.count() * growth)), mostPatience);
}
} // namespace

Registration::Registration(const BoxSettings &settings, SharedPort *port, QObject *parent)
    : QObject(parent), m_settings(settings), m_port(port)
{
    m_message.box = settings.box;
    m_silence.setSingleShot(true);
    connect(&m_silence, &QTimer::timeout, this, &Registration::onSilence);
}

Registration::~Registration()
{
    if (m_lookup >= 0)
        QHostInfo::abortHostLookup(m_lookup);
}

void Registration::refresh(std::uint64_t nonce)
{
    if (nonce != m_message.nonce)
        m_message.count = 0;
    m_message.nonce = nonce;
    m_challenges = 0;
    if (QNetworkInterface::allAddresses() != m_network) {
        m_silences = 0;
        reopen();
    } else if (m_isOpen && !m_silence.isActive()) {
        send();
    } else if (!m_isOpen) {
        lookUp();
    }
}

void Registration::reopen()
{
    m_silence.stop();
    emit unanswered();
    m_isOpen = false;
    m_network = QNetworkInterface::allAddresses();
    lookUp();
}

void Registration::lookUp()
{
    if (m_lookup >= 0)
        return;
    const QHostAddress literal(m_settings.endpoint.host); // looking that up would ask for its name
    if (!literal.isNull()) {
        QHostInfo found;
        found.setAddresses({literal});
        return open(found);
    }
    m_lookup = QHostInfo::lookupHost(m_settings.endpoint.host, this, [this](const QHostInfo &found) {
        m_lookup = -1;
        open(found);
    });
}

void Registration::open(const QHostInfo &found)
{
    const auto addresses = found.addresses();
    if (addresses.isEmpty())
        return tellError(QStringLiteral("Cannot look up %1: %2").arg(m_settings.endpoint.host, found.errorString()));
    const QHostAddress &host = addresses.at(m_next % addresses.size());
    const QString error =
        m_port->open(m_settings.udpPort, introduction::addressOf(host, static_cast<quint16>(m_settings.endpoint.port)));
    m_isOpen = error.isEmpty();
    m_message.cookie = 0; // of the address before
    if (host != m_host)
        emit moved();
    m_host = host;
    m_isOneOfMany = std::count_if(addresses.cbegin(), addresses.cend(), [&host](const QHostAddress &other) {
                        return other.protocol() == host.protocol();
                    }) > 1;
    if (m_isOpen)
        return send();
    m_next++;
    tellError(QStringLiteral("Cannot reach %1: %2").arg(m_settings.server, error));
}

void Registration::send()
{
    m_message.count++;
    m_port->sendToServer(introduction::encode(m_message, m_settings.token));
    m_silence.start(patience(m_silences));
}

void Registration::onSilence()
{
    m_silences++;
    if (m_silences < patientSilences)
        return send();
    tellError(QStringLiteral("No answer from %1: is it there, and does UDP to it pass?").arg(m_settings.server));
    m_next++;
    reopen();
}

void Registration::take(std::string_view bytes)
{
    if (const auto registered = introduction::read<introduction::Registered>(bytes))
        onRegistered(*registered);
    else if (const auto challenge = introduction::read<introduction::Challenge>(bytes))
        onChallenge(*challenge);
    else if (const auto refusal = introduction::read<introduction::Refusal>(bytes))
        onRefusal(*refusal);
}

void Registration::onRegistered(const introduction::Registered &message)
{
    if (message.count != m_message.count)
        return;
    m_silence.stop();
    m_silences = 0;
    const bool isKnown = message.relayAge != introduction::Registered::notKnown && !m_isOneOfMany;
    emit answered(isKnown ? std::make_optional(std::chrono::seconds(message.relayAge)) : std::nullopt);
    tell(QStringLiteral("Registered at %1, seen as %2.").arg(m_settings.server, textOf(message.seen)));
}

void Registration::onChallenge(const introduction::Challenge &message)
{
    if (message.echo != m_message.nonce || m_challenges >= mostChallenges)
        return;
    m_challenges++;
    m_silences = 0; // it is there, even if much is lost on the way
    m_message.cookie = message.cookie;
    send();
}

void Registration::onRefusal(const introduction::Refusal &message)
{
    if (message.echo != m_message.nonce)
        return;
    m_silence.stop(); // it is there; the next refresh may find it in another mood
    emit unanswered();
    m_silences = 0;
    if (message.reason == introduction::Reason::BadToken)
        tellError(QStringLiteral(
                      "%1 refuses the box's token: it belongs to another UUID, or the server has a new secret. Use "
                      "nat-relay-admin join with the line that nat-rendezvousd token '%2' prints there.")
                      .arg(m_settings.server, m_settings.uuid));
}
