#pragma once

#include "introduction/messages.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

/// What one household or host has: a whole IPv4 address, or the first half of an IPv6 one. A view into the address.
inline std::string_view networkOf(const introduction::Address &address)
{
    constexpr std::array<std::uint8_t, 12> mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    constexpr std::size_t length = 8; // of an IPv6 network
    const auto &ip = address.ip;
    const bool isMapped = std::equal(mappedPrefix.cbegin(), mappedPrefix.cend(), ip.cbegin());
    return {reinterpret_cast<const char *>(ip.data()), isMapped ? ip.size() : length};
}
