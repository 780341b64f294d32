#pragma once

// The line of text that makes up a quarantine rule, taken apart again.
// docs/formats/quarantine_rule.md describes the line piece by piece;
// src/quarantine/quarantine_rule.h writes it.
//
// Threads: pure functions.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace tarnctl {

// What one line says.
struct QuarantineParts {
    int ipVersion = 4;     // 4 or 6
    std::string intruder;  // source address as text; empty for none
    std::string victim;    // destination address as text; empty for none
    int protocol = 0;      // IP protocol number; 0 for none
    std::optional<uint8_t> icmpType;
    std::optional<uint8_t> icmpCode;
    uint16_t sourcePort = 0;       // 0 for none
    uint16_t destinationPort = 0;  // 0 for none
    uint32_t counter = 0;          // bytes a second that may still pass; 0 for none
    time_t expiration = 0;         // seconds since the epoch

    bool operator==(const QuarantineParts&) const = default;
};

// Takes exactly the lines that QuarantineRule writes for what IP knows: an address is in its
// shortest form, a number without needless digits, a protocol that has a name by its name. So a
// line that is taken is what QuarantineRule writes for its parts. Returns an empty string with
// the parts, or the reason why the line is none, which leaves the parts as they were.
[[nodiscard]] std::string ParseQuarantineText(std::string_view text, QuarantineParts& parts);

// Seconds since the epoch as a line has them: 2026-11-12T15:00:00Z.
[[nodiscard]] std::string UtcText(time_t time);

}  // namespace tarnctl
