// Whoever meets a side sees it at an address: the server that introduces, the one that carries, the other side. Two
// that see the same port tell of one port for all; how ports are chosen by the address alone, and not by the port that
// is met, cannot be told apart from that where both are on one host.

#include "client/path/sides.h"

#include <algorithm>
#include <array>
#include <iterator>

using introduction::Address;

namespace
{
struct Words {
    const char *name;
    const char *text;
};

// In the order of Translation.
constexpr std::array<Words, 5> words{{{"unknown", "not known"},
                                      {"none", "translates nothing"},
                                      {"keeps-port", "keeps the port"},
                                      {"one-port", "one port for all destinations, another than inside"},
                                      {"port-per-destination", "another port for each destination"}}};
} // namespace

Translation translationOf(const Side &side)
{
    const auto isOwn = [&side](const Address &address) {
        return std::find(side.own.cbegin(), side.own.cend(), address) != side.own.cend();
    };
    if (side.seen.empty())
        return Translation::Unknown;
    const Address &first = side.seen.front();
    if (isOwn(first))
        return Translation::None;
    // What was seen over IPv6, or within the side's own network, tells nothing of what the router does elsewhere.
    std::vector<Address> outside;
    std::copy_if(side.seen.cbegin(), side.seen.cend(), std::back_inserter(outside),
                 [&first](const Address &address) { return address.ip == first.ip; });
    if (std::any_of(outside.cbegin(), outside.cend(), [&first](const Address &address) { return address != first; }))
        return Translation::PortPerDestination;
    if (!side.own.empty() && side.own.front().port == first.port)
        return Translation::KeepsPort;
    return outside.size() > 1 ? Translation::OnePort : Translation::Unknown;
}

QString textOf(Translation translation)
{
    return QLatin1String(words.at(static_cast<std::size_t>(translation)).text);
}

QString nameOf(Translation translation)
{
    return QLatin1String(words.at(static_cast<std::size_t>(translation)).name);
}
