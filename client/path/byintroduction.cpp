// A call is repeated under the same id until it is answered; the box acts on it once. The first datagram to a server is
// answered with a cookie and the box's nonce, which the next one repeats. What may reach the box or its routers from
// now on takes its course beside this: the path knocks at what is found here.

#include "client/path/byintroduction.h"

#include "introduction/hostaddress.h"

#include <QHostInfo>
#include <QNetworkInterface>

#include <algorithm>
#include <chrono>

using namespace introduction;
using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds repeatSpacing = 500ms;
constexpr std::chrono::milliseconds patientSpacing = 2s; // after a refusal that may pass
constexpr int sendsPerServer = 2;                        // before the next of its addresses is tried
constexpr int sendsUntilStream = 3;                      // 1 s without a sign of the server
constexpr int mostSends = 100;                           // of one call, whatever the server answers
constexpr int mostReports = 5;                           // of the way that is open, likewise
constexpr int mostOwnAddresses = 8;

QList<QHostAddress> ownAddresses()
{
    QList<QHostAddress> addresses;
    const auto all = QNetworkInterface::allAddresses();
    for (const QHostAddress &address : all) {
        if (!address.isLoopback() && !address.isLinkLocal() && addresses.size() < mostOwnAddresses)
            addresses.append(address);
    }
    return addresses;
}

std::string_view viewOf(const QByteArray &bytes)
{
    return {bytes.constData(), static_cast<std::size_t>(bytes.size())};
}

QByteArray toBytes(std::string_view text)
{
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

/// A peer file that has been read has none but good ones.
template <typename Value> Value good(const std::optional<Value> &value)
{
    return value.value_or(Value());
}
} // namespace

ByIntroduction::ByIntroduction(const PeerFile &peer, UdpChannel *channel, QObject *parent)
    : Way(parent), m_server(peer.rendezvous()), m_box(good(uuidOf(peer.boxUuid.toStdString()))),
      m_peer(good(uuidOf(peer.uuid.toStdString()))), m_token(good(keyOf(peer.token.toStdString()))),
      m_key(good(keyOf(peer.callKey.toStdString()))), m_channel(channel), m_stream(this)
{
    connect(&m_repeat, &QTimer::timeout, this, &ByIntroduction::transmit);
    connect(&m_stream, &CallStream::opened, this, [this] { send(m_byTcp); });
    connect(&m_stream, &CallStream::received, this, [this](const QByteArray &data) { takeMessage(&m_byTcp, data); });
}

QString ByIntroduction::name() const
{
    return QStringLiteral("the rendezvous server, %1").arg(m_server.host);
}

void ByIntroduction::begin()
{
    m_isAnswered = m_wantsBurst = false;
    m_byUdp = m_byTcp = Line();
    m_stream.close();
    m_relayed = {};
    m_reason.clear();
    m_addresses.clear();
    const QHostAddress literal(m_server.host);
    if (!literal.isNull()) {
        m_addresses = {literal};
        return ask();
    }
    m_lookup = QHostInfo::lookupHost(m_server.host, this, [this](const QHostInfo &host) {
        m_lookup = -1;
        m_addresses = host.addresses();
        if (m_addresses.isEmpty())
            return emit failed(QStringLiteral("no address found for %1, the rendezvous server").arg(m_server.host));
        // Routers that translate are those of IPv4: what the server sees of both sides there is what it takes.
        std::stable_partition(m_addresses.begin(), m_addresses.end(), [](const QHostAddress &address) {
            return address.protocol() == QAbstractSocket::IPv4Protocol;
        });
        ask();
    });
}

void ByIntroduction::end()
{
    m_repeat.stop();
    m_stream.close();
    if (m_lookup >= 0)
        QHostInfo::abortHostLookup(m_lookup);
    m_lookup = -1;
}

void ByIntroduction::help()
{
    m_wantsBurst = true;
    if (!m_addresses.isEmpty())
        ask();
}

void ByIntroduction::useRelayed(const QHostAddress &address, quint16 port)
{
    m_relayed = addressOf(address, port);
    if (!m_addresses.isEmpty())
        ask();
}

/// The last call once more, whose answer brings another account. What it may have said of the way is no longer so.
void ByIntroduction::loseCarrier()
{
    m_relayed = {};
    m_openWay.reset();
    m_sent = 0;
    m_byUdp.isAnswered = m_byTcp.isAnswered = false;
    m_repeat.start(patientSpacing);
}

QString ByIntroduction::silence() const
{
    if (!m_reason.isEmpty())
        return m_reason;
    if (m_isAnswered)
        return QStringLiteral("the box answers the rendezvous server, but nothing opens between it and here");
    return m_byUdp.isHeard || m_byTcp.isHeard
               ? QStringLiteral("the rendezvous server knows the box, which does not answer it: is it still on, and "
                                "is its configuration still the one that was handed over?")
               : QStringLiteral(
                     "no answer from %1, the rendezvous server, by UDP or TCP: is this machine connected to the "
                     "internet, and that server on?")
                     .arg(m_server.host);
}

/// The box's owner sees it. Nothing waits for that, so a server that is gone is not asked for long.
void ByIntroduction::opened(OpenWay way)
{
    if (m_addresses.isEmpty())
        return;
    m_openWay = way;
    call();
    m_sent = mostSends - mostReports;
}

void ByIntroduction::ask()
{
    m_openWay.reset();
    call();
}

void ByIntroduction::call()
{
    for (Line *line : {&m_byUdp, &m_byTcp}) {
        line->id = freshNumber();
        line->isAnswered = false;
    }
    m_sent = 0;
    m_repeat.start(repeatSpacing);
    transmit();
}

void ByIntroduction::transmit()
{
    if (++m_sent > mostSends)
        return m_repeat.stop();
    const bool isHeard = m_byUdp.isHeard || m_byTcp.isHeard;
    if (!isHeard && m_sent > 1 && m_sent % sendsPerServer == 1)
        m_addresses.append(m_addresses.takeFirst());
    if (!m_byUdp.isHeard && (m_byTcp.isHeard || m_sent >= sendsUntilStream))
        m_stream.open(m_addresses.constFirst(), static_cast<quint16>(m_server.port));
    send(m_byUdp);
    send(m_byTcp);
}

void ByIntroduction::send(const Line &line)
{
    if (line.isAnswered)
        return;
    const QByteArray bytes =
        QByteArray::fromStdString(encode(Call{m_box, m_peer, line.id, line.cookie, sealed(line)}, m_token));
    if (&line == &m_byTcp)
        m_stream.send(bytes);
    else
        m_channel->send(bytes, m_addresses.constFirst(), static_cast<quint16>(m_server.port));
}

std::string ByIntroduction::sealed(const Line &line) const
{
    Items items;
    items.add(Item::BoxNonce, m_boxNonce);
    const auto addresses = ownAddresses();
    for (const QHostAddress &address : addresses)
        items.add(Item::OwnAddress, addressOf(address, m_channel->port()));
    if (m_relayed.port != 0)
        items.add(Item::RelayedAddress, m_relayed);
    if (&line == &m_byTcp)
        items.add(Item::NoDatagrams, std::string_view());
    else if (m_wantsBurst)
        items.add(Item::BurstWanted, std::string_view());
    const char way = m_openWay ? static_cast<char>(*m_openWay) : '\0';
    if (m_openWay)
        items.add(Item::OpenWay, std::string_view(&way, 1));
    return seal(items.bytes(), context(SealedFor::BoxByPeer, m_box, m_peer, line.id), m_key);
}

bool ByIntroduction::take(const QByteArray &data, const QHostAddress &from, quint16 port)
{
    const bool isServer = port == m_server.port && !m_addresses.isEmpty() &&
                          m_addresses.constFirst().isEqual(from, QHostAddress::TolerantConversion);
    if (!isServer)
        return false;
    takeMessage(&m_byUdp, data);
    return true;
}

void ByIntroduction::takeMessage(Line *line, const QByteArray &data)
{
    const std::string_view bytes = viewOf(data);
    const auto challenge = read<Challenge>(bytes);
    const auto refusal = read<Refusal>(bytes);
    const auto answer = read<Answer>(bytes);
    const bool isOurs = (challenge && challenge->echo == line->id) || (refusal && refusal->echo == line->id) ||
                        (answer && answer->id == line->id);
    if (!isOurs)
        return;
    line->isHeard = true;
    if (!m_repeat.isActive() || line->isAnswered)
        return; // nobody waits for it any more
    if (challenge)
        takeChallenge(line, *challenge);
    else if (refusal)
        takeRefusal(*refusal);
    else
        takeAnswer(line, *answer);
}

void ByIntroduction::takeChallenge(Line *line, const Challenge &challenge)
{
    if (++m_sent > mostSends)
        return m_repeat.stop();
    line->cookie = challenge.cookie;
    if (challenge.boxNonce != 0)
        m_boxNonce = challenge.boxNonce;
    send(*line);
}

void ByIntroduction::takeRefusal(const Refusal &refusal)
{
    if (refusal.reason == Reason::UnknownBox)
        m_reason =
            QStringLiteral("the rendezvous server does not know the box: is it on, and connected to the internet?");
    else if (refusal.reason == Reason::BadToken)
        m_reason = QStringLiteral("the rendezvous server does not take this peer's token: the box has joined anew, and "
                                  "must hand over a new configuration");
    else
        m_reason =
            QStringLiteral("the rendezvous server has passed on as many calls to the box as it may, and this one "
                           "had no answer: is the box's configuration still the one that was handed over?");
    m_repeat.start(patientSpacing);
}

void ByIntroduction::takeAnswer(Line *line, const Answer &answer)
{
    const auto byServer =
        unseal(answer.byServer, context(SealedFor::PeerByServer, m_box, m_peer, line->id), answerKey(m_token));
    const auto items = byServer ? Items::of(*byServer) : std::nullopt;
    if (!items)
        return;
    line->isAnswered = true;
    if (line == &m_byUdp)
        m_repeat.stop();
    else
        m_repeat.start(patientSpacing); // by UDP alone: what is slow there may still come
    QList<Target> seen;
    const auto where = items->addresses(Item::SeenAddress);
    if (!where.empty() && !hostOf(where.front()).isLoopback()) // one, as a server that lies must not aim us at many
        seen.append({hostOf(where.front()), where.front().port, true});
    if (answer.byBox.empty()) { // a box with other software, of which the server only knows where it is
        tellSides(*line, *items, {});
        emit found(seen);
    } else {
        const auto plain = unseal(answer.byBox, context(SealedFor::PeerByBox, m_box, m_peer, line->id), m_key);
        const auto byBox = plain ? Items::of(*plain) : std::nullopt;
        tellSides(*line, *items, byBox.value_or(Items()));
        if (byBox)
            takeVerdict(*byBox, seen);
        else
            m_reason = QStringLiteral("what the box answers cannot be read: it must hand over a new configuration");
    }
    const Endpoint turn = Endpoint::ofBox(QString::fromUtf8(toBytes(items->first(Item::TurnServer))));
    if (!turn.host.isEmpty() && turn.error.isEmpty() && m_relayed.port == 0 && m_reason.isEmpty())
        emit carrierFound({turn.host, static_cast<quint16>(turn.port),
                           static_cast<quint16>(items->number(Item::TurnTlsPort)), !m_byUdp.isHeard,
                           toBytes(items->first(Item::TurnUser)), toBytes(items->first(Item::TurnPassword))});
}

void ByIntroduction::tellSides(const Line &line, const Items &byServer, const Items &byBox)
{
    Sides sides;
    const auto own = ownAddresses();
    for (const QHostAddress &address : own)
        sides.peer.own.push_back(addressOf(address, m_channel->port()));
    if (&line == &m_byUdp) // the ports of TCP are others
        sides.peer.seen = byServer.addresses(Item::CallerAddress);
    sides.box.own = byBox.addresses(Item::OwnAddress);
    sides.box.seen = byServer.addresses(Item::SeenAddress);
    emit sighted(sides);
}

void ByIntroduction::takeVerdict(const Items &byBox, const QList<Target> &seen)
{
    const std::string_view verdict = byBox.first(Item::Verdict);
    const auto value = verdict.empty() ? Verdict::Busy : static_cast<Verdict>(verdict.front());
    if (const std::uint64_t nonce = byBox.number(Item::BoxNonce); nonce != 0)
        m_boxNonce = nonce;
    m_reason.clear();
    m_isAnswered = true;
    if (value == Verdict::StaleNonce)
        return call();
    if (value == Verdict::UnknownPeer) {
        m_reason = QStringLiteral("the box refuses this peer: it has been removed there");
        return emit failed(m_reason);
    }
    if (value == Verdict::Busy) {
        m_reason = QStringLiteral("the box has had too many calls of this peer; again in a minute");
        m_byUdp.isAnswered = m_byTcp.isAnswered = false;
        return m_repeat.start(patientSpacing);
    }
    QList<Target> targets;
    for (const Address &address : byBox.addresses(Item::OwnAddress))
        targets.append({hostOf(address), address.port, false});
    m_wantsBurst = false; // that one has been heard
    if (m_openWay)
        return;
    emit found(targets + seen);
}
