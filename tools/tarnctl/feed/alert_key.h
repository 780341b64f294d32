#pragma once

// What tells alerts apart that have become reports: the fields of the report that come from the
// alert's record alone. Alerts that agree in all of them give the same report, so whoever counts
// reports need not tell them apart either.
//
// Threads: plain values.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "crm/event_report_format.h"

namespace tarnctl {

struct AlertKey {
    uint64_t second = 0;
    uint32_t signature = 0;
    uint32_t vlan = 0;
    uint32_t source = 0;
    uint32_t destination = 0;
    std::array<uint8_t, 16> sourceIpv6 = {};
    std::array<uint8_t, 16> destinationIpv6 = {};
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    uint16_t etherType = 0;
    uint16_t protocol = 0;
    uint8_t icmpType = 0;
    uint8_t icmpCode = 0;

    bool operator==(const AlertKey&) const = default;
};

struct AlertKeyHash {
    size_t operator()(const AlertKey& key) const;
};

[[nodiscard]] AlertKey KeyOf(const EventReport& report);

// What the daemon makes of an alert's record, header included.
struct AlertRead {
    uint32_t eventId = 0;
    AlertKey key;
};
[[nodiscard]] AlertRead ReadAlert(uint32_t type, std::span<const std::byte> record);

// The event id of a packet or of extra data.
[[nodiscard]] uint32_t AttachmentEventId(uint32_t type, std::span<const std::byte> record);
// The bytes that such a record adds to a report: what it claims, whatever it holds.
[[nodiscard]] uint64_t AttachmentReportBytes(uint32_t type, std::span<const std::byte> record);
// True for extra data that is shorter than its own two fields; the daemon ends at such a record.
[[nodiscard]] bool EndsTheDaemon(uint32_t type, std::span<const std::byte> record);

}  // namespace tarnctl
