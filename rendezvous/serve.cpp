// One thread: what comes is answered in the order in which it came. A registration is a look into one table and one
// HMAC, so that a single core keeps pace with the boxes of a small country.

#include "rendezvous/serve.h"

#include "rendezvous/introducer.h"
#include "rendezvous/metrics.h"
#include "rendezvous/natsnodes.h"
#include "rendezvous/sockets.h"
#include "rendezvous/streams.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace
{
constexpr int longestWait = 5000; // milliseconds

Moment now()
{
    return std::chrono::duration_cast<Moment>(std::chrono::steady_clock::now().time_since_epoch());
}

std::chrono::seconds wallClock()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
}

/// Becomes readable when the program is asked to end; before any thread is made, so that all of them leave it to this.
int openEnd()
{
    sigset_t end;
    sigemptyset(&end);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&end, signal);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    return signalfd(-1, &end, SFD_CLOEXEC);
}

Introducer::Options optionsOf(const Configuration &configuration)
{
    const auto secret = introduction::keyOf(configuration.secret);
    if (!secret)
        throw std::invalid_argument("the secret must be 64 hexadecimal digits; nat-rendezvousd setup makes one");
    Introducer::Options options;
    options.secret = *secret;
    options.turn = {configuration.turn, configuration.turnSecret, configuration.turnTlsPort};
    options.trustsPlain = configuration.trustsPlain;
    if (options.trustsPlain &&
        !configuration.cluster.empty()) // what a relay says here must not go before an agent elsewhere
        throw std::invalid_argument("trust-plain and cluster do not go together: a server of several nodes must know "
                                    "where a box's agent has registered it");
    return options;
}

} // namespace

void serve(const Configuration &configuration)
{
    Introducer::Options options = optionsOf(configuration);
    const int end = openEnd();
    std::unique_ptr<NatsNodes> others;
    if (!configuration.cluster.empty())
        others = std::make_unique<NatsNodes>(configuration.cluster);
    options.others = others.get();
    Introducer introducer(options);
    Sockets sockets(configuration.listen);
    Streams streams(configuration.listen);
    std::shared_ptr<void> metrics;
    if (!configuration.metrics.empty())
        metrics = showMetrics(configuration.metrics, introducer.counts());

    // What is said by TCP goes on by UDP, and the other way round.
    const auto byTcp = [&](std::optional<Datagram> response) {
        if (!response || response->place.socket != Streams::socket)
            return response;
        streams.send(*response);
        return std::optional<Datagram>();
    };
    const auto take = [&](const Place &from, std::string_view bytes) {
        return byTcp(introducer.take(from, bytes, now(), wallClock()));
    };
    const auto send = [&](std::optional<Datagram> response) {
        if (const auto datagram = byTcp(std::move(response)))
            sockets.send({*datagram});
    };
    std::vector<pollfd> waiting{
        {end, POLLIN, 0}, {others ? others->descriptor() : -1, POLLIN, 0}, {streams.descriptor(), POLLIN, 0}};
    const std::size_t first = waiting.size(); // of the sockets
    for (const int descriptor : sockets.descriptors())
        waiting.push_back({descriptor, POLLIN, 0});
    std::fprintf(stderr, "nat-rendezvousd: ready\n");
    while (waiting.front().revents == 0) {
        if (poll(waiting.data(), waiting.size(), longestWait) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for datagrams");
        introducer.forgetSilent(now());
        streams.closeSilent(now());
        if (waiting.at(1).revents != 0)
            others->serve([&](std::string_view bytes) { send(introducer.takeHanded(bytes, now(), wallClock())); });
        if (waiting.at(2).revents != 0)
            streams.serve(now(), [&](const Place &from, std::string_view bytes) {
                send(introducer.take(from, bytes, now(), wallClock()));
            });
        for (std::size_t index = first; index < waiting.size(); index++) {
            if (waiting.at(index).revents != 0)
                sockets.serve(static_cast<std::uint8_t>(index - first), take);
        }
    }
}
