#pragma once

// IP addresses and networks as bits.
//
// Threads: pure functions.

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tarnctl {

struct IpAddress {
    int family = AF_UNSPEC;                         // AF_INET or AF_INET6
    std::array<uint8_t, sizeof(in6_addr)> bytes{};  // in network byte order, from the first on

    bool operator==(const IpAddress&) const = default;
};

struct IpNetwork {
    IpAddress base;
    unsigned prefix = 0;  // bits, 0 to 32 or 128
};

// How many bits an address of this family has.
[[nodiscard]] unsigned BitsOf(int family);

// Nothing for a text that is no address.
[[nodiscard]] std::optional<IpAddress> ParseIpAddress(const std::string& text);

// An address, or a network as address and prefix length. Returns an empty string with the network,
// or the reason why the text is none.
[[nodiscard]] std::string ParseIpNetwork(const std::string& text, IpNetwork& network);

[[nodiscard]] bool Contains(const IpNetwork& network, const IpAddress& address);

// The IPv4 network that an IPv6 network stands for: mapped (::ffff:0:0/96), NAT64 (64:ff9b::/96) or
// 6to4 (2002::/16). Nothing for any other.
[[nodiscard]] std::optional<IpNetwork> EmbeddedIpv4(const IpNetwork& network);

}  // namespace tarnctl
