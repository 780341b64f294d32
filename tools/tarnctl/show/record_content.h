#pragma once

// The records of unified2, those that the daemon takes and those that it skips, taken apart.
//
// The daemon's own layouts (unified2/unified2_format.h) serve for all kinds that share them: the
// events without VLAN or MPLS fields are the front of those with them. What a sensor of the third
// generation writes as one event for both families is read up to its VLAN field.
//
// Threads: plain values. The spans in a record are borrowed from its payload.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "tarnctl/quarantine/ip_network.h"

namespace tarnctl {

struct EventContent {
    uint32_t sensorId = 0;
    uint32_t eventId = 0;
    uint32_t second = 0;  // since the epoch
    uint32_t microsecond = 0;
    uint32_t signatureId = 0;
    uint32_t generatorId = 0;
    uint32_t revision = 0;
    uint32_t classification = 0;
    uint32_t priority = 0;
    IpAddress source;
    IpAddress destination;
    uint16_t sourcePort = 0;       // or the type of ICMP
    uint16_t destinationPort = 0;  // or the code of ICMP
    std::optional<uint8_t> protocol;
    std::optional<uint8_t> impactFlag;
    std::optional<uint8_t> impact;
    std::optional<uint8_t> blocked;
    std::optional<uint32_t> mplsLabel;
    std::optional<uint16_t> vlanId;
    std::vector<uint32_t> policies;  // one, or three: context, inspection, detection
    std::string application;
};

struct PacketContent {
    uint32_t sensorId = 0;
    uint32_t eventId = 0;
    uint32_t eventSecond = 0;
    uint32_t second = 0;
    uint32_t microsecond = 0;
    uint32_t linkType = 0;
    uint32_t length = 0;               // as the record says
    std::span<const std::byte> bytes;  // of the packet that are there
};

struct ExtraContent {
    uint32_t sensorId = 0;
    uint32_t eventId = 0;
    uint32_t eventSecond = 0;
    uint32_t type = 0;
    uint32_t dataType = 0;
    std::span<const std::byte> bytes;
};

struct ApplicationTraffic {
    std::string name;
    uint32_t fromInitiator = 0;  // bytes
    uint32_t fromResponder = 0;  // bytes
};

struct StatisticsContent {
    uint32_t second = 0;
    std::vector<ApplicationTraffic> applications;
};

// A kind of which no more is known than its name, if that.
struct OtherContent {};

using RecordContent =
    std::variant<OtherContent, EventContent, PacketContent, ExtraContent, StatisticsContent>;

// The name of a kind, as in "event"; "unknown" for a type that no sensor is known to write.
[[nodiscard]] const char* KindOfRecord(uint32_t type);

// What a kind of extra data holds, as in "HTTP URI"; empty where that is not known.
[[nodiscard]] std::string KindOfExtraData(uint32_t type);

// Takes a payload apart. Returns an empty text, or the reason why it is malformed; `content` is
// then of no use.
[[nodiscard]] std::string DecodeRecord(uint32_t type, std::span<const std::byte> payload,
                                       RecordContent& content);

// The text of an address.
[[nodiscard]] std::string AddressText(const IpAddress& address);

}  // namespace tarnctl
