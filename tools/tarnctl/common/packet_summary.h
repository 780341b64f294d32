#pragma once

// What a captured packet is, in one line: addresses, ports, protocol, flags.
//
// Threads: pure functions. Nothing outside the bytes is read, whatever they hold.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tarnctl {

// The link types of capture files that are understood.
enum LinkType : uint32_t {
    kLinkNull = 0,       // four bytes of family
    kLinkEthernet = 1,   // with VLAN tags or without
    kLinkRawIp = 101,    // no header; in the files of a sensor also 12, 228 and 229
    kLinkCooked = 113,   // Linux, "any" interface
    kLinkCooked2 = 276,  // its second form
};

struct PacketSummary {
    std::string source;  // address; empty where the packet is no IP
    std::string destination;
    std::optional<uint8_t> protocol;     // of the IP payload
    std::optional<uint16_t> sourcePort;  // of TCP and UDP
    std::optional<uint16_t> destinationPort;
    std::string flags;  // of TCP, as "SYN ACK"
    std::string line;   // all of it for a person; always something
};

[[nodiscard]] PacketSummary SummaryOf(std::span<const std::byte> packet, uint32_t linkType);

// "10.0.0.1:80" or "[2001:db8::1]:80", without a port the address alone.
[[nodiscard]] std::string EndpointName(const std::string& address, std::optional<uint16_t> port);

}  // namespace tarnctl
