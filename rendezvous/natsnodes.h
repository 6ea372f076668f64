#pragma once

#include "rendezvous/othernodes.h"

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// The other nodes, through NATS. The library has threads of its own, and a call of it may wait for the network: so one
/// more thread speaks to it, and what comes waits in a queue. There is one of these in a process.
class NatsNodes : public OtherNodes
{
public:
    /// Connects on and on, until it is destroyed. Throws std::invalid_argument where these are no URLs of NATS servers.
    explicit NatsNodes(const std::vector<std::string> &servers);
    ~NatsNodes() override;

    std::uint64_t number() const override { return m_number; }
    void want(const introduction::Uuid &box, bool isWanted) override;
    void handToBox(const introduction::Uuid &box, std::string bytes, std::string unclaimed) override;
    void handToNode(std::uint64_t number, std::string bytes) override;

    /// Readable when something has come.
    int descriptor() const { return m_arrived; }
    /// Calls `take` with all that has come from other nodes, or has come back.
    void serve(const std::function<void(std::string_view bytes)> &take);

private:
    struct Letter {
        std::string subject;
        std::string bytes;
        std::string reply; // subject of what comes back if nobody listens; empty: nothing does
    };

    void post(Letter letter);
    void keep(std::string bytes);
    void run();
    void grant(const std::map<introduction::Uuid, bool> &wishes);
    void publish(const Letter &letter);
    bool connect();
    void disconnect();
    void subscribe(const introduction::Uuid &box, natsSubscription **subscription);
    static void onMessage(natsConnection *connection, natsSubscription *subscription, natsMsg *message, void *self);
    static void onClosed(natsConnection *connection, void *self);

    const std::vector<std::string> m_servers;
    const std::uint64_t m_number;
    const int m_arrived; // an eventfd
    std::atomic<bool> m_isConnected{false};
    std::atomic<bool> m_isEnding{false};

    std::mutex m_mutex; // of the three
    std::map<introduction::Uuid, bool> m_wishes;
    std::vector<Letter> m_out;
    std::vector<std::string> m_in;
    std::condition_variable m_isWanted;

    // Of the thread alone.
    bool m_isTold = false; // how it went for the first time
    natsConnection *m_connection = nullptr;
    natsSubscription *m_own = nullptr;
    std::map<introduction::Uuid, natsSubscription *> m_boxes;
    std::thread m_thread;
};
