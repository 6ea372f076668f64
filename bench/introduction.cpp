// The rendezvous server: what a registration costs one core, and a registered box the memory.

#include "bench/figures.h"
#include "rendezvous/introducer.h"
#include "rendezvous/sockets.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

using namespace introduction;

namespace
{
constexpr int batch = 64;
constexpr std::chrono::seconds wallClock{1'800'000'000};

Uuid boxNumber(std::uint32_t number)
{
    Uuid uuid{};
    const std::uint32_t spread = number * 2'654'435'761U; // a UUID is random
    std::memcpy(uuid.data() + 8, &number, sizeof number);
    std::memcpy(uuid.data() + 12, &spread, sizeof spread);
    return uuid;
}

RegisteredBox boxAt(const Place &place, std::uint32_t number, const Key &secret)
{
    RegisteredBox box;
    box.uuid = boxNumber(number);
    box.token = boxToken(secret, box.uuid);
    box.place = place;
    box.isSigned = true;
    return box;
}

/// A box's socket, and how long the server needs for what is sent there.
class Loop
{
public:
    Loop() : m_sockets({"127.0.0.1:7000"}), m_socket(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(7000);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(m_socket, reinterpret_cast<const sockaddr *>(&server), sizeof server);
    }
    ~Loop() { close(m_socket); }
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    template <typename Take> double seconds(const std::vector<std::string> &datagrams, Take take)
    {
        for (const std::string &bytes : datagrams)
            ::send(m_socket, bytes.data(), bytes.size(), 0);
        const double time = figures::timed([&] { m_sockets.serve(0, take); });
        std::array<char, longestMessage> answer{};
        answers = 0;
        while (recv(m_socket, answer.data(), answer.size(), 0) > 0)
            answers++;
        return time;
    }

    int answers = 0;

private:
    Sockets m_sockets;
    int m_socket;
};

void registrations(benchmark::State &state)
{
    constexpr std::uint32_t boxes = 100'000; // more than the caches hold
    constexpr int rounds = 200;
    Introducer::Options options;
    options.secret = freshKey();
    Introducer introducer(options);
    Loop loop;
    Place place; // of all of them
    loop.seconds({std::string(1, ' ')}, [&place](const Place &from, std::string_view) {
        place = from;
        return std::optional<Datagram>();
    });
    for (std::uint32_t number = 0; number < boxes; number++)
        introducer.m_boxes.put(boxAt(place, number, options.secret));

    std::uint32_t count = 0;
    const auto datagrams = [&] {
        std::vector<std::string> all;
        for (int index = 0; index < batch; index++) {
            const RegisteredBox *box = introducer.m_boxes.find(boxNumber(++count * 7919 % boxes));
            all.push_back(encode(Registration{box->uuid, box->nonce, count, 0}, box->token));
        }
        return all;
    };
    const auto take = [&](const Place &from, std::string_view bytes) {
        return introducer.take(from, bytes, Moment(0), wallClock);
    };
    const auto echo = [](const Place &from, std::string_view bytes) {
        return std::optional(Datagram{from, std::string(bytes)});
    };
    const auto rate = [&](auto how) {
        double time = 0;
        int answered = 0;
        for (int round = 0; round < rounds; round++) {
            time += loop.seconds(datagrams(), how);
            answered += loop.answers;
        }
        if (answered != rounds * batch)
            qFatal("%d of %d are answered", answered, rounds * batch);
        return answered / time;
    };
    figures::atLeast(0.4, QStringLiteral("registrations of boxes at the rendezvous server, one core"),
                     QStringLiteral("the same datagrams echoed by a bare loop of `recvmmsg` and `sendmmsg`"),
                     figures::perSecond,
                     figures::compare(
                         state, [&] { return rate(take); }, [&] { return rate(echo); }));
}
FIGURE(registrations, 9);

void ownMemoryOfBoxes(benchmark::State &state)
{
    constexpr std::uint32_t boxes = 1'000'000;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const Key secret = freshKey();
        BoxRegistry registry(Moment(1), boxes);
        const double before = figures::memory("VmRSS");
        state.SetIterationTime(figures::timed([&] {
            for (std::uint32_t number = 0; number < boxes; number++)
                registry.put(boxAt(Place(), number, secret));
        }));
        figures::under(200, QStringLiteral("memory of a registered box, of a million"), {"bytes", 1},
                       (figures::memory("VmRSS") - before) / boxes);
    }
}
FIGURE(ownMemoryOfBoxes, 1);
} // namespace
