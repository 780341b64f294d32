#pragma once

// The quarantine rules in force, each with its end.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// A rule, and the last event that asked for it.
struct RuleInForce {
    QuarantineParts parts;
    std::string text;  // the line that says all this
    uint32_t issueId = 0;
    uint64_t asked = 1;  // how often it was asked for
};

class RuleTable {
  public:
    // Puts a rule in force. Rules that differ in their end only are one, and the later end holds. A
    // rule whose end has come is not kept.
    void Add(const QuarantineParts& parts, const std::string& text, uint32_t issueId, time_t now);

    // When the rule in force that differs from this one in its end at most ends; 0 for none.
    [[nodiscard]] time_t EndOf(const QuarantineParts& parts) const;

    // Takes out the rules whose end has come, and returns them.
    std::vector<RuleInForce> DropExpired(time_t now);

    [[nodiscard]] const std::vector<RuleInForce>& Rules() const { return m_rules; }

  private:
    std::vector<RuleInForce> m_rules;  // in the order of their first asking
};

}  // namespace tarnctl
