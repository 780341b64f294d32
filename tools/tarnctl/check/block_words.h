#pragma once

// Flags of an entry in the words of its file and in plain English.
//
// Threads: pure functions.

#include <cstdint>
#include <string>

#include "config/event_rule_node.h"
#include "config/event_rule_parser.h"

namespace tarnctl {

// To which events a block rule can apply, if their addresses are known.
struct Applies {
    bool toIcmp;
    bool toOthers;
};
[[nodiscard]] Applies AppliesTo(uint32_t blockFlags);

// "quarantine-intruder-address, quarantine-victim-port", or "no words".
[[nodiscard]] std::string BlockFlagsInWords(uint32_t blockFlags);
// The same with duration and rate limit.
[[nodiscard]] std::string BlockRuleInWords(const BlockRule& rule);
// "response none", or what the flags apply to.
[[nodiscard]] std::string ResponseInWords(uint32_t responseFlags);
// Whether the raw packet goes with the report, and whether packets are logged.
[[nodiscard]] std::string UserResponseInWords(uint32_t userResponseFlags);

// "what is cut off, and for how long" of a rule that applies to some protocol.
[[nodiscard]] std::string BlockRuleInPlainWords(const BlockRule& rule);

// "10 minutes"
[[nodiscard]] std::string DurationInWords(uint64_t seconds);

// A duration in seconds for a number with a unit after it, such as "10m"; empty for another text.
[[nodiscard]] std::string SecondsFor(const ListTrace::Entry& entry, const std::string& unit);

}  // namespace tarnctl
