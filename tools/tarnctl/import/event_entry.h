#pragma once

// The entry of tarn_event.conf that an import writes for a signature.
//
// Threads: pure functions.

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarnctl/snort_rules/rule_set.h"

namespace tarnctl {

// The longest name, in bytes.
inline constexpr size_t kLongestName = 255;

// The message of a rule as a value that the loader takes whole: one line of printable UTF-8 without
// blanks at its ends, no longer than kLongestName. Empty if nothing is left of it.
[[nodiscard]] std::string EventName(std::string_view message);

// "high", "medium" or "low" for a priority; 0, which is unknown, gives "low".
[[nodiscard]] std::string_view SeverityWord(uint32_t priority);

struct EventEntry {
    uint32_t id = 0;
    std::vector<uint32_t> generators;
    std::string name;
    std::string_view severity;  // a literal
    std::string file;           // of the first rule, with its line
    uint32_t line = 0;
    std::string text;  // the lines of the entry, with an empty line in front
};

// The entry for `rules`, which are the signatures of one sid: they differ in their generators and
// share the entry. The first with a message names it, and the most severe one gives the severity.
[[nodiscard]] EventEntry MakeEntry(const RuleSet& set, std::span<const SnortRule> rules);

}  // namespace tarnctl
