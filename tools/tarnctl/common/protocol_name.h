#pragma once

// The name of an IP protocol, the same in every sub-command.
//
// Threads: a pure function.

#include <cstdint>
#include <string>

namespace tarnctl {

// "TCP", "UDP", "ICMP", "ICMPv6", else "protocol N".
[[nodiscard]] std::string ProtocolName(uint16_t protocol);

}  // namespace tarnctl
