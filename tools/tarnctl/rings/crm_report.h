#pragma once

// One message of the CRM's event queue, taken apart.
//
// The form is that of crm/event_report_format.h and is checked to the byte: every chunk in its
// place and as long as it says, every string ended within its chunk, nothing left over. A monitor
// that guessed would hide exactly the faults it is there to show.
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "crm/event_report_format.h"

namespace tarnctl {

struct CrmPacket {
    PacketInfo info;  // pData is always null here
    std::vector<std::byte> bytes;
};

struct CrmReport {
    uint32_t blockedStatus = 0;
    EventReport report;       // userString is always null here
    uint64_t userString = 0;  // that field as it came, which should be 0
    std::string nameValues;
    std::string userResponse;
    std::string userData;  // event name, ":" and the severity's word
    std::string sensorName;
    std::optional<CrmPacket> packet;
    std::vector<std::pair<std::string, std::string>> pairs;  // in the order of the message

    [[nodiscard]] bool IsBlocked() const { return blockedStatus == kReportBlocked; }

    // The two halves of userData. A name may hold colons of its own, so the last one divides.
    [[nodiscard]] std::string_view EventName() const;
    [[nodiscard]] std::string_view Severity() const;
};

// Takes `bytes`, one whole message, apart. Returns an empty string, or the reason why the message
// is malformed; `message` is then of no use. Reads nothing outside `bytes` whatever they hold.
[[nodiscard]] std::string DecodeCrmReport(std::span<const std::byte> bytes, CrmReport& message);

}  // namespace tarnctl
