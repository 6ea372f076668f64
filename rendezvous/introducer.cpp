// A source proves itself by a cookie: the first datagram from a new address is answered with one that is good for that
// address and a minute or two, and only what comes with it changes anything (plain registrations, where they are
// trusted, aside). A box that registers again from where it was, under the same nonce, needs none. Calls and replies
// leave nothing behind here: the ticket that goes to the box with a call, and comes back, says for whom the reply is.

#include "rendezvous/introducer.h"

#include "rendezvous/network.h"

#include <cryptopp/hmac.h>
#include <cryptopp/sha.h>
#include <cryptopp/siphash.h>
#include <openssl/evp.h>

#include <limits>
#include <utility>

using namespace introduction;
using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::seconds cookieTime = 64s;
constexpr std::chrono::seconds credentialTime = 1h;
constexpr Allowance::Rule sourceRule{50ms, 100}; // what is not a known box's own registration, for a whole network
constexpr Allowance::Rule callRule{250ms, 40};   // for one box
constexpr Allowance::Rule callerRule{1s, 15};    // of one peer
constexpr Moment silenceLimit = 70s;             // three registrations of an agent, 20 s apart, and some way
constexpr Moment overdueAfter = 25s;             // a registration is missing: the box may be at another node by now
constexpr Moment plainSilenceLimit = 650s;       // two of a relay, 300 s apart
constexpr std::size_t mostPlainBoxes = 100'000;  // as anybody can make them up

// The registration of a relay, in plain.
constexpr std::uint8_t plainKind = 1;
constexpr std::size_t plainUuidOffset = 5;

void appendNumber(std::string *text, std::uint64_t number)
{
    for (int shift = 56; shift >= 0; shift -= 8)
        *text += static_cast<char>(number >> static_cast<unsigned>(shift));
}

void appendAddress(std::string *text, const Address &address)
{
    text->append(reinterpret_cast<const char *>(address.ip.data()), address.ip.size());
    appendNumber(text, address.port);
}

std::uint64_t shortMac(const std::string &text, const Key &key)
{
    const Mac mac = macOf(text, key);
    std::uint64_t number = 0;
    for (std::size_t byte = 0; byte < sizeof number; byte++)
        number = number << 8U | mac[byte];
    return number;
}

bool isEqual(std::uint64_t left, std::uint64_t right) // in constant time
{
    return isSame({reinterpret_cast<const char *>(&left), sizeof left},
                  {reinterpret_cast<const char *>(&right), sizeof right});
}

std::uint16_t relayAge(const RegisteredBox &box, Moment now)
{
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now) - box.relaySeen;
    return box.relaySeen.count() > 0 && age.count() < Registered::notKnown ? static_cast<std::uint16_t>(age.count())
                                                                           : Registered::notKnown;
}

std::string turnPassword(const std::string &user, const std::string &secret)
{
    CryptoPP::HMAC<CryptoPP::SHA1> hmac(reinterpret_cast<const CryptoPP::byte *>(secret.data()), secret.size());
    std::array<CryptoPP::byte, CryptoPP::SHA1::DIGESTSIZE> digest = {};
    hmac.CalculateDigest(digest.data(), reinterpret_cast<const CryptoPP::byte *>(user.data()), user.size());
    std::string password(4 * (digest.size() + 2) / 3, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(password.data()), digest.data(),
                                       static_cast<int>(digest.size()));
    password.resize(static_cast<std::size_t>(length));
    return password;
}
} // namespace

Introducer::Introducer(const Options &options)
    : m_options(options), m_cookieKey(cookieKey(options.secret)), m_nodeKey(nodeKey(options.secret)),
      m_hashKey(freshKey()), m_boxes(silenceLimit, std::numeric_limits<std::size_t>::max(),
                                     [this](const Uuid &box) {
                                         if (m_options.others != nullptr)
                                             m_options.others->want(box, false);
                                     }),
      m_plainBoxes(plainSilenceLimit, mostPlainBoxes), m_sources(std::make_unique<Allowances>()),
      m_callers(std::make_unique<Allowances>())
{
}

std::optional<Datagram> Introducer::take(const Place &from, std::string_view bytes, Moment now,
                                         std::chrono::seconds wallClock)
{
    const Incoming incoming{from, bytes, now, wallClock};
    const auto kind = bytes.empty() ? std::uint8_t(0) : static_cast<std::uint8_t>(bytes.front());
    Response response;
    if (kind == static_cast<std::uint8_t>(MessageKind::Registration))
        response = takeRegistration(incoming);
    else if (kind == static_cast<std::uint8_t>(MessageKind::Call))
        response = takeCall(incoming);
    else if (kind == static_cast<std::uint8_t>(MessageKind::Reply))
        response = takeReply(incoming);
    else if (kind == plainKind)
        response = takePlain(incoming);
    else
        response = drop();
    forgetSilent(now);
    return response;
}

void Introducer::forgetSilent(Moment now)
{
    m_boxes.forgetSilent(now);
    m_plainBoxes.forgetSilent(now);
    m_counts.boxes.store(m_boxes.size() + m_plainBoxes.size(), std::memory_order_relaxed);
}

Introducer::Response Introducer::takeRegistration(const Incoming &incoming)
{
    const auto message = read<Registration>(incoming.bytes);
    if (!message)
        return drop();
    const RegisteredBox *box = m_boxes.find(message->box);
    const bool isKnown = box != nullptr && box->isSigned;
    const bool isSameRun = isKnown && box->nonce == message->nonce;
    const bool isInPlace = isSameRun && box->place == incoming.from;
    if (isSameRun && message->count <= box->count)
        return drop(); // a replay, wherever it comes from
    if (!isInPlace) {
        if (!isWithinLimit(incoming))
            return std::nullopt;
        if (!isProven(incoming, message->cookie))
            return challenge(incoming, message->nonce, 0);
    }
    const Key token = isKnown ? box->token : boxToken(m_options.secret, message->box);
    if (!isSigned(incoming.bytes, token))
        return !isInPlace || isWithinLimit(incoming) ? refuse(incoming, message->nonce, Reason::BadToken)
                                                     : std::nullopt;

    if (isInPlace) {
        box->nonce = message->nonce;
        box->count = message->count;
        m_boxes.see(box, incoming.now);
    } else {
        RegisteredBox changed;
        changed.uuid = message->box;
        changed.token = token;
        changed.place = incoming.from;
        changed.isSigned = true;
        changed.count = message->count;
        changed.nonce = message->nonce;
        changed.seen = incoming.now;
        m_boxes.put(changed);
        tellMoved(changed);
        box = m_boxes.find(message->box);
    }
    Counts::add(&m_counts.registrations);
    return Datagram{incoming.from,
                    encode(Registered{message->count, incoming.from.address, relayAge(*box, incoming.now)})};
}

/// Anybody can send one: it counts for where a box is only if that is wanted, and no agent has registered the box.
/// Where one has, from the same address, the agent is told that it came.
Introducer::Response Introducer::takePlain(const Incoming &incoming)
{
    const auto uuid = incoming.bytes.size() > plainUuidOffset ? uuidOf(incoming.bytes.substr(plainUuidOffset))
                                                              : std::optional<Uuid>();
    if (!uuid)
        return drop();
    Counts::add(&m_counts.plainRegistrations);
    const RegisteredBox *known = m_boxes.find(*uuid);
    if (known != nullptr && known->place == incoming.from)
        known->relaySeen = std::chrono::duration_cast<decltype(known->relaySeen)>(incoming.now);
    if (!m_options.trustsPlain || known != nullptr || !isWithinLimit(incoming))
        return std::nullopt;
    RegisteredBox box;
    box.uuid = *uuid;
    box.token = boxToken(m_options.secret, *uuid);
    box.place = incoming.from;
    box.seen = incoming.now;
    m_plainBoxes.put(box);
    return std::nullopt;
}

Introducer::Response Introducer::takeCall(const Incoming &incoming)
{
    const auto call = read<Call>(incoming.bytes);
    if (!call)
        return drop();
    if (!isWithinLimit(incoming))
        return std::nullopt;
    const RegisteredBox *box = m_boxes.find(call->box);
    if (box == nullptr)
        box = m_plainBoxes.find(call->box);
    if (!isProven(incoming, call->cookie))
        return challenge(incoming, call->id, box == nullptr ? 0 : box->nonce);
    if (box == nullptr && m_options.others == nullptr) {
        Counts::add(&m_counts.unknownBoxes);
        return refuse(incoming, call->id, Reason::UnknownBox);
    }
    const Key token = box == nullptr ? boxToken(m_options.secret, call->box) : box->token;
    if (!isSigned(incoming.bytes, peerToken(token, call->peer)))
        return refuse(incoming, call->id, Reason::BadToken);
    // Of this peer first: one alone must not use up what the box has for all.
    const std::string pair = textOf(call->box) + textOf(call->peer);
    if (!allowance(m_callers.get(), pair)->take(incoming.now, callerRule)) {
        Counts::add(&m_counts.overLimit);
        return refuse(incoming, call->id, Reason::Busy);
    }
    const Ring toBox{call->peer, call->id, ticket(incoming, call->box, call->id), call->sealed};
    if (box == nullptr || incoming.now - box->seen > overdueAfter)
        handOn(call->box, toBox, box == nullptr);
    return box == nullptr ? std::nullopt : ring(*box, toBox, incoming.now, incoming.wallClock);
}

/// The call may have come to another node.
Introducer::Response Introducer::ring(const RegisteredBox &box, const Ring &call, Moment now,
                                      std::chrono::seconds wallClock)
{
    if (!box.calls.take(now, callRule)) {
        Counts::add(&m_counts.overLimit);
        return deliver({box.uuid, call.id, call.ticket, encode(Refusal{call.id, Reason::Busy})});
    }
    Counts::add(&m_counts.calls);
    if (!box.isSigned)
        return deliver({box.uuid, call.id, call.ticket,
                        encode(Answer{call.id, seal(box, call.peer, call.id, call.ticket.peer, wallClock), {}})});
    return Datagram{box.place, encode(call, box.token)};
}

Introducer::Response Introducer::takeReply(const Incoming &incoming)
{
    auto reply = read<Reply>(incoming.bytes);
    if (!reply)
        return drop();
    const RegisteredBox *box = m_boxes.find(reply->box);
    if (box == nullptr || !box->isSigned || box->place != incoming.from)
        return drop();
    if (!isSigned(incoming.bytes, box->token) || !isValid(reply->ticket, reply->box, reply->id, incoming.wallClock))
        return drop();
    if (!box->replies.take(incoming.now, callRule)) {
        Counts::add(&m_counts.overLimit);
        return std::nullopt;
    }
    Counts::add(&m_counts.answers);
    const Answer answer{reply->id, seal(*box, reply->peer, reply->id, reply->ticket.peer, incoming.wallClock),
                        std::move(reply->sealed)};
    return deliver({reply->box, reply->id, reply->ticket, encode(answer)});
}

/// What the server itself tells a peer: where it sees the box and the peer, and how that may have its datagrams
/// carried.
std::string Introducer::seal(const RegisteredBox &box, const Uuid &peer, std::uint64_t id, const Address &caller,
                             std::chrono::seconds wallClock) const
{
    Items items;
    items.add(Item::SeenAddress, box.place.address).add(Item::CallerAddress, caller);
    if (!m_options.turn.server.empty()) {
        const std::string user = std::to_string((wallClock + credentialTime).count()) + ':' + textOf(peer);
        items.add(Item::TurnServer, m_options.turn.server)
            .add(Item::TurnUser, user)
            .add(Item::TurnPassword, turnPassword(user, m_options.turn.secret));
        if (m_options.turn.tlsPort != 0)
            items.add(Item::TurnTlsPort, std::uint64_t(m_options.turn.tlsPort));
    }
    return introduction::seal(items.bytes(), context(SealedFor::PeerByServer, box.uuid, peer, id),
                              answerKey(peerToken(box.token, peer)));
}

Introducer::Response Introducer::challenge(const Incoming &incoming, std::uint64_t echo, std::uint64_t boxNonce)
{
    Counts::add(&m_counts.challenges);
    const std::uint64_t proof = cookie(incoming.from, incoming.wallClock / cookieTime);
    return Datagram{incoming.from, encode(Challenge{echo, proof, boxNonce})};
}

Introducer::Response Introducer::refuse(const Incoming &incoming, std::uint64_t echo, Reason reason)
{
    if (reason == Reason::BadToken)
        Counts::add(&m_counts.badTokens);
    return Datagram{incoming.from, encode(Refusal{echo, reason})};
}

Introducer::Response Introducer::drop()
{
    Counts::add(&m_counts.dropped);
    return std::nullopt;
}

bool Introducer::isWithinLimit(const Incoming &incoming)
{
    if (allowance(m_sources.get(), networkOf(incoming.from.address))->take(incoming.now, sourceRule))
        return true;
    Counts::add(&m_counts.overLimit);
    return false;
}

/// That of whoever has this name, and of a few others: nobody can tell of whom.
Allowance *Introducer::allowance(Allowances *of, std::string_view name) const
{
    CryptoPP::SipHash<2, 4> hash(m_hashKey.data(), CryptoPP::SipHash<2, 4>::DEFAULT_KEYLENGTH);
    std::array<CryptoPP::byte, sizeof(std::uint64_t)> digest = {};
    hash.CalculateDigest(digest.data(), reinterpret_cast<const CryptoPP::byte *>(name.data()), name.size());
    return &of->at((digest[0] + 256U * digest[1]) % of->size());
}

bool Introducer::isProven(const Incoming &incoming, std::uint64_t proof) const
{
    const std::int64_t period = incoming.wallClock / cookieTime;
    return isEqual(proof, cookie(incoming.from, period)) || isEqual(proof, cookie(incoming.from, period - 1));
}

/// Good for an address and one period of time.
std::uint64_t Introducer::cookie(const Place &of, std::int64_t period) const
{
    std::string text("c");
    appendAddress(&text, of.address);
    appendNumber(&text, static_cast<std::uint64_t>(period));
    return shortMac(text, m_cookieKey);
}

Ticket Introducer::ticket(const Incoming &incoming, const Uuid &box, std::uint64_t id) const
{
    Ticket made;
    made.node = incoming.from.socket | (m_options.others == nullptr ? 0 : m_options.others->number());
    made.peer = incoming.from.address;
    made.signature = signature(made, box, id, incoming.wallClock / cookieTime);
    return made;
}

bool Introducer::isValid(const Ticket &ticket, const Uuid &box, std::uint64_t id, std::chrono::seconds wallClock) const
{
    const std::int64_t period = wallClock / cookieTime;
    return isEqual(ticket.signature, signature(ticket, box, id, period)) ||
           isEqual(ticket.signature, signature(ticket, box, id, period - 1));
}

/// Good for as long as a cookie, so that nobody can have an old peer's address written to for ever.
std::uint64_t Introducer::signature(const Ticket &ticket, const Uuid &box, std::uint64_t id, std::int64_t period) const
{
    std::string text("t");
    appendAddress(&text, ticket.peer);
    appendNumber(&text, ticket.node);
    appendNumber(&text, id);
    appendNumber(&text, static_cast<std::uint64_t>(period));
    text.append(reinterpret_cast<const char *>(box.data()), box.size());
    return shortMac(text, m_cookieKey);
}
