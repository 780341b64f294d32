#include "quarantine/address_text.h"

#include <arpa/inet.h>

#include <array>

// inet_ntop fails for an unknown family or a buffer that is too small only, so its result is the
// buffer in both.

std::string Ipv4Text(in_addr_t networkOrder) {
    std::array<char, INET_ADDRSTRLEN> text;
    return inet_ntop(AF_INET, &networkOrder, text.data(), text.size());
}

std::string Ipv6Text(std::span<const uint8_t, 16> address) {
    std::array<char, INET6_ADDRSTRLEN> text;
    return inet_ntop(AF_INET6, address.data(), text.data(), text.size());
}
