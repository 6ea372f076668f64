// The rendezvous server among boxes and peers that say anything. Each datagram of the input is 0 sender | 1 how it is
// signed | 2 length | 3 bytes, of which those of signed kinds get a MAC that is right, and a cookie where one was
// given. Some come from another node of the server.

#include "rendezvous/introducer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>

using namespace introduction;

namespace
{
constexpr Uuid box{1};
constexpr Uuid peer{2};
constexpr std::size_t header = 3;

void overwrite(std::string *bytes, std::size_t offset, std::string_view with)
{
    if (bytes->size() >= offset + with.size())
        bytes->replace(offset, with.size(), with);
}

template <std::size_t size> std::string_view viewOf(const std::array<std::uint8_t, size> &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), size};
}

/// Other nodes, which are told a lot.
struct Others : OtherNodes {
    std::uint64_t number() const override { return 0x100; }
    void want(const Uuid & /*box*/, bool /*isWanted*/) override {}
    void handToBox(const Uuid & /*box*/, std::string bytes, std::string /*unclaimed*/) override { check(bytes); }
    void handToNode(std::uint64_t number, std::string bytes) override
    {
        check(bytes);
        if (number % 0x100 != 0)
            std::abort();
    }
    static void check(const std::string &bytes)
    {
        if (!read<HandedCall>(bytes) && !read<HandedAnswer>(bytes) && !read<Moved>(bytes))
            std::abort(); // nobody would take it
    }
};

/// What a good box or peer would have put in.
std::string complete(std::string bytes, unsigned how, const std::string &cookie, const std::string &ticket,
                     const Key &secret)
{
    constexpr std::size_t cookieOfBox = 29;
    constexpr std::size_t peerOffset = 17;
    constexpr std::size_t cookieOfPeer = 41;
    constexpr std::size_t ticketOffset = 41;
    const Key ofBox = boxToken(secret, box);
    const bool isByPeer = (how & 4U) != 0;
    if ((how & 1U) != 0)
        overwrite(&bytes, 1, viewOf(box));
    if ((how & 2U) != 0)
        overwrite(&bytes, isByPeer ? cookieOfPeer : cookieOfBox, cookie);
    if (isByPeer)
        overwrite(&bytes, peerOffset, viewOf(peer));
    if ((how & 16U) != 0)
        overwrite(&bytes, ticketOffset, ticket);
    if ((how & 8U) != 0) {
        const Mac mac = macOf(bytes, isByPeer ? peerToken(ofBox, peer) : ofBox);
        bytes += viewOf(mac);
    }
    return bytes;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Introducer::Options options;
    options.turn = {"turn.example:3478", "secret"};
    options.trustsPlain = size > 0 && (data[0] & 64U) != 0;
    Others others;
    options.others = size > 0 && (data[0] & 16U) != 0 ? &others : nullptr;
    Introducer introducer(options);
    std::map<std::uint16_t, std::string> cookies; // that each sender was given
    std::string ticket;
    Moment now{0};
    while (size >= header) {
        const std::size_t length = std::min<std::size_t>(data[2] * std::size_t{8}, size - header);
        Place from;
        from.address.port = data[0] % 4;
        const std::string bytes = complete(std::string(reinterpret_cast<const char *>(data + header), length), data[1],
                                           cookies[from.address.port], ticket, options.secret);
        const std::chrono::seconds wallClock(now.count() / 1000);
        const Mac mac = macOf(bytes, nodeKey(options.secret));
        const auto sent = (data[0] & 32U) != 0 ? introducer.takeHanded(bytes + std::string(viewOf(mac)), now, wallClock)
                                               : introducer.take(from, bytes, now, wallClock);
        if (sent && sent->place == from) {
            const auto challenge = read<Challenge>(sent->bytes);
            if (challenge && sent->bytes.size() > bytes.size())
                std::abort(); // the sender has proved nothing yet
            if (challenge)
                cookies[from.address.port] = sent->bytes.substr(9, 8);
        }
        if (sent && read<Ring>(sent->bytes))
            ticket = sent->bytes.substr(25, 34);
        now += Moment((data[0] & 128U) != 0 ? 10000 : 100);
        data += header + length;
        size -= header + length;
    }
    return 0;
}
