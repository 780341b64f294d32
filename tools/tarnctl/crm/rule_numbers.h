#pragma once

// The numbers of a rule that its report does not have: those that its text alone knows.
//
// Threads: pure functions.

#include <cstdint>
#include <string_view>

namespace tarnctl {

// Generator and revision of a rule, as the text of the rule has them.
struct RuleNumbers {
    uint32_t generator = 1;  // rules of text that name none have this one
    uint32_t revision = 0;
};
[[nodiscard]] RuleNumbers NumbersOfRule(std::string_view rule);

}  // namespace tarnctl
