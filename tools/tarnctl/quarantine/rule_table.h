#pragma once

// The quarantine rules in force, each with its end.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// A rule, and the last event that asked for it.
struct RuleInForce {
    QuarantineParts parts;
    std::string text;  // the line that says all this
    uint32_t issueId = 0;
    uint64_t asked = 1;  // how often it was asked for
    time_t since = 0;    // when it got its end, in seconds since the epoch
    std::string why;     // what a person said who asked for it; empty when no person did
};

// For how many seconds the rule is still in force. A clock that was set back since does not make
// that longer than it was at first.
[[nodiscard]] int64_t SecondsLeft(const RuleInForce& rule, time_t now);

class RuleTable {
  public:
    // Puts a rule in force. Rules that differ in their end only are one, and the later end holds. A
    // rule whose end has come is not kept.
    void Add(const QuarantineParts& parts, const std::string& text, uint32_t issueId, time_t now,
             const std::string& why = "");

    // Puts a rule in force again as it was, in place of one that differs in its end at most.
    void Restore(RuleInForce rule);

    // The rule in force that differs from this one in its end at most; null for none. Valid until
    // the next change.
    [[nodiscard]] const RuleInForce* Find(const QuarantineParts& parts) const;

    // Takes out that rule. True if there was one.
    bool TakeOutOne(const QuarantineParts& parts);

    // When the rule in force that differs from this one in its end at most ends; 0 for none.
    [[nodiscard]] time_t EndOf(const QuarantineParts& parts) const;

    // Takes out the rules whose end has come, and returns them in their order.
    std::vector<RuleInForce> DropExpired(time_t now);

    // Takes out the rules for which this is true, and returns them in their order.
    std::vector<RuleInForce> TakeOut(const std::function<bool(const RuleInForce&)>& isWanted);

    // In the order of their first asking.
    [[nodiscard]] const std::list<RuleInForce>& Rules() const { return m_rules; }

  private:
    struct Hash {
        size_t operator()(const QuarantineParts& parts) const;
    };

    std::list<RuleInForce> m_rules;
    // By the parts without an end.
    std::unordered_map<QuarantineParts, std::list<RuleInForce>::iterator, Hash> m_places;
    time_t m_firstEnd = std::numeric_limits<time_t>::max();  // no rule ends before this
};

}  // namespace tarnctl
