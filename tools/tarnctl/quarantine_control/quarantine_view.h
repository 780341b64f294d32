#pragma once

// What the service answers, in lines for a person.
//
// Threads: pure functions, but for the width of a terminal.

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tarnctl/common/display.h"

namespace tarnctl {

// "59 s", "10 m", "3 h", "2 d": whole units, of the largest that has at least two of them.
[[nodiscard]] std::string RemainingText(int64_t seconds);

// A rule as a line: time left, packets dropped, signature or reason, rule. No line end.
[[nodiscard]] std::string QuarantineLine(const nlohmann::ordered_json& rule,
                                         const Display& display);

// What became of an address, in a line: cut off, in part, protected, or none of these.
[[nodiscard]] std::string QuarantineVerdict(const nlohmann::ordered_json& answer);

}  // namespace tarnctl
