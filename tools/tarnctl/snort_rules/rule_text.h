#pragma once

// Reads the text of a rule file of Snort 2 or Snort 3, or a snort.conf with rules in it.
//
// A rule is an action, a header and options in parentheses. It may go over several lines, with a
// backslash at their ends or, as Snort 3 allows, without. A rule that is commented out counts as a
// disabled one. Comments are lines with "#", /* ... */ between options, and #begin to #end. What
// cannot be read is remarked, and the reading goes on with the next line.
//
// Threads: a pure function.

#include <string_view>

#include "tarnctl/snort_rules/snort_rule.h"

namespace tarnctl {

[[nodiscard]] RuleFileContent ReadRuleText(std::string_view text);

}  // namespace tarnctl
