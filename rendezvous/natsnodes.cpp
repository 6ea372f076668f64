// Each box that is registered here has a subject that this node subscribes to, and so has the node itself. A connection
// that is lost is not mended but made anew, with all subscriptions: one way for the first time and any other. Until
// then boxes that are registered here are served, and others are not known.

#include "rendezvous/natsnodes.h"

#include "introduction/messages.h"

#include <boost/algorithm/hex.hpp>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

using introduction::Uuid;
using namespace std::chrono_literals;

namespace
{
constexpr std::size_t mostWaiting = 4096; // each way: of more at once the last are lost, and asked for again
constexpr std::chrono::milliseconds retryInterval = 1s;
constexpr int connectTime = 2000;  // milliseconds
constexpr int writeTime = 2000;    // milliseconds; for a server that is there and takes nothing
constexpr int pingInterval = 3000; // milliseconds; two that are not answered tell that the server is gone
constexpr int mostPings = 2;
constexpr unsigned socketBits = 8; // of a node's number, which are 0
constexpr int64_t endTime = 5000;  // milliseconds

constexpr const char *ofBoxes = "nat-rendezvousd.box.";
constexpr const char *ofNodes = "nat-rendezvousd.node.";

std::string subjectOf(const Uuid &box)
{
    return ofBoxes + introduction::textOf(box);
}

std::string subjectOf(std::uint64_t node, const std::string &what)
{
    return ofNodes + std::to_string(node) + '.' + what;
}

std::vector<std::string> checked(const std::vector<std::string> &servers)
{
    for (const std::string &server : servers) {
        const auto begin = server.find("://");
        const std::string scheme = server.substr(0, begin);
        if (begin == std::string::npos || server.size() == begin + 3 || (scheme != "nats" && scheme != "tls"))
            throw std::invalid_argument(
                "each server of the cluster must be nats://HOST:PORT or tls://HOST:PORT"); // it may hold a password
    }
    return servers;
}
} // namespace

NatsNodes::NatsNodes(const std::vector<std::string> &servers)
    : m_servers(checked(servers)), m_number(introduction::freshNumber() >> socketBits << socketBits),
      m_arrived(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_thread([this] { run(); })
{
}

NatsNodes::~NatsNodes()
{
    m_isEnding = true;
    m_isWanted.notify_all();
    m_thread.join();
    nats_CloseAndWait(endTime); // or its threads might still call back
    close(m_arrived);
}

void NatsNodes::want(const Uuid &box, bool isWanted)
{
    const std::lock_guard lock(m_mutex);
    m_wishes[box] = isWanted;
    m_isWanted.notify_all();
}

void NatsNodes::handToBox(const Uuid &box, std::string bytes, std::string unclaimed)
{
    if (!m_isConnected) {
        if (!unclaimed.empty())
            keep(std::move(unclaimed));
        return;
    }
    post({subjectOf(box), std::move(bytes),
          unclaimed.empty() ? std::string() : subjectOf(m_number, boost::algorithm::hex(unclaimed))});
}

void NatsNodes::handToNode(std::uint64_t number, std::string bytes)
{
    post({subjectOf(number, "answer"), std::move(bytes), std::string()});
}

void NatsNodes::post(Letter letter)
{
    const std::lock_guard lock(m_mutex);
    if (m_out.size() < mostWaiting)
        m_out.push_back(std::move(letter));
    m_isWanted.notify_all();
}

void NatsNodes::keep(std::string bytes)
{
    const std::lock_guard lock(m_mutex);
    if (m_in.size() < mostWaiting)
        m_in.push_back(std::move(bytes));
    eventfd_write(m_arrived, 1);
}

void NatsNodes::serve(const std::function<void(std::string_view)> &take)
{
    eventfd_t count = 0;
    std::vector<std::string> arrived;
    {
        const std::lock_guard lock(m_mutex);
        eventfd_read(m_arrived, &count);
        arrived.swap(m_in);
    }
    for (const std::string &bytes : arrived)
        take(bytes);
}

void NatsNodes::run()
{
    while (!m_isEnding) {
        if (!m_isConnected || natsConnection_IsClosed(m_connection)) {
            disconnect();
            m_isConnected = connect();
        }
        std::map<Uuid, bool> wishes;
        std::vector<Letter> out;
        {
            std::unique_lock lock(m_mutex);
            m_isWanted.wait_for(lock, retryInterval, [this] {
                return m_isEnding || (m_isConnected && !(m_wishes.empty() && m_out.empty()));
            });
            wishes.swap(m_wishes);
            out.swap(m_out);
        }
        grant(wishes);
        for (const Letter &letter : out)
            publish(letter);
    }
    disconnect();
}

void NatsNodes::publish(const Letter &letter)
{
    const auto length = static_cast<int>(letter.bytes.size());
    if (m_connection == nullptr)
        return;
    if (letter.reply.empty())
        natsConnection_Publish(m_connection, letter.subject.c_str(), letter.bytes.data(), length);
    else
        natsConnection_PublishRequest(m_connection, letter.subject.c_str(), letter.reply.c_str(), letter.bytes.data(),
                                      length);
}

void NatsNodes::grant(const std::map<Uuid, bool> &wishes)
{
    for (const auto &[box, isWanted] : wishes) {
        const auto [entry, isNew] = m_boxes.emplace(box, nullptr);
        if (isWanted && isNew)
            subscribe(box, &entry->second);
        if (!isWanted) {
            natsSubscription_Destroy(entry->second);
            m_boxes.erase(entry);
        }
    }
}

bool NatsNodes::connect()
{
    natsOptions *options = nullptr;
    if (natsOptions_Create(&options) != NATS_OK)
        return false;
    const std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)> owner(options, natsOptions_Destroy);
    std::vector<const char *> servers;
    for (const std::string &server : m_servers)
        servers.push_back(server.c_str());
    natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size()));
    natsOptions_SetName(options, "nat-rendezvousd");
    natsOptions_SetTimeout(options, connectTime);
    natsOptions_SetAllowReconnect(options, false);
    natsOptions_SetWriteDeadline(options, writeTime);
    natsOptions_SetPingInterval(options, pingInterval);
    natsOptions_SetMaxPingsOut(options, mostPings);
    natsOptions_UseGlobalMessageDelivery(options, true); // or each box would have a thread
    natsOptions_SetNoEcho(options, true);
    natsOptions_SetClosedCB(options, onClosed, this);
    const natsStatus status = natsConnection_Connect(&m_connection, options);
    if (status != NATS_OK) {
        if (!m_isTold)
            std::fprintf(stderr,
                         "nat-rendezvousd: cannot connect to NATS (%s); only boxes registered here are known until "
                         "it answers\n",
                         natsStatus_GetText(status));
        m_isTold = true;
        return false;
    }
    m_isTold = true; // what happens to it from now on is told when it happens
    natsConnection_Subscribe(&m_own, m_connection, subjectOf(m_number, "*").c_str(), onMessage, this);
    for (auto &[box, subscription] : m_boxes)
        subscribe(box, &subscription);
    std::fprintf(stderr, "nat-rendezvousd: connected to NATS\n");
    return true;
}

void NatsNodes::disconnect()
{
    for (auto &[box, subscription] : m_boxes)
        natsSubscription_Destroy(std::exchange(subscription, nullptr));
    natsSubscription_Destroy(std::exchange(m_own, nullptr));
    natsConnection_Destroy(std::exchange(m_connection, nullptr));
}

void NatsNodes::subscribe(const Uuid &box, natsSubscription **subscription)
{
    if (m_connection != nullptr)
        natsConnection_Subscribe(subscription, m_connection, subjectOf(box).c_str(), onMessage, this);
}

/// What nobody has claimed comes back as an empty message, to the subject that has it.
void NatsNodes::onMessage(natsConnection * /*connection*/, natsSubscription * /*subscription*/, natsMsg *message,
                          void *self)
{
    const std::unique_ptr<natsMsg, decltype(&natsMsg_Destroy)> owner(message, natsMsg_Destroy);
    std::string bytes;
    if (natsMsg_IsNoResponders(message)) {
        const std::string_view subject = natsMsg_GetSubject(message);
        try {
            boost::algorithm::unhex(subject.substr(subject.rfind('.') + 1), std::back_inserter(bytes));
        } catch (const boost::algorithm::hex_decode_error &) {
            return; // somebody else's
        }
    } else if (const int length = natsMsg_GetDataLength(message);
               length > 0 && static_cast<std::size_t>(length) <= introduction::longestHanded) {
        bytes.assign(natsMsg_GetData(message), static_cast<std::size_t>(length));
    }
    if (!bytes.empty())
        static_cast<NatsNodes *>(self)->keep(std::move(bytes));
}

void NatsNodes::onClosed(natsConnection * /*connection*/, void *self)
{
    auto *nodes = static_cast<NatsNodes *>(self);
    if (nodes->m_isConnected.exchange(false) && !nodes->m_isEnding)
        std::fprintf(stderr, "nat-rendezvousd: no connection to NATS; only boxes registered here are known\n");
}
