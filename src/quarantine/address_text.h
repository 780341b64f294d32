#pragma once

// IP addresses as the text that rules, reports and log lines show.
//
// Threads: any; nothing is shared.

#include <netinet/in.h>

#include <cstdint>
#include <span>
#include <string>

// Dotted decimal, as 10.0.0.1. The number is in network byte order.
[[nodiscard]] std::string Ipv4Text(in_addr_t networkOrder);

// The shortest form in lower case, as 2001:db8::1. The bytes are in network byte order.
[[nodiscard]] std::string Ipv6Text(std::span<const uint8_t, 16> address);
