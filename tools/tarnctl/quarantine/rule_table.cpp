#include "tarnctl/quarantine/rule_table.h"

#include <algorithm>
#include <iterator>

namespace tarnctl {
namespace {

// Finds the rule that is the same but for its end.
template <typename Rules>
auto Find(Rules& rules, QuarantineParts parts) {
    return std::find_if(rules.begin(), rules.end(), [&parts](const RuleInForce& rule) {
        parts.expiration = rule.parts.expiration;
        return rule.parts == parts;
    });
}

}  // namespace

void RuleTable::Add(const QuarantineParts& parts, const std::string& text, uint32_t issueId,
                    time_t now) {
    if (parts.expiration <= now) {
        return;
    }
    const auto known = Find(m_rules, parts);
    if (known == m_rules.end()) {
        m_rules.push_back({parts, text, issueId});
        return;
    }
    if (parts.expiration > known->parts.expiration) {
        known->parts.expiration = parts.expiration;
        known->text = text;
    }
    known->issueId = issueId;
    ++known->asked;
}

time_t RuleTable::EndOf(const QuarantineParts& parts) const {
    const auto known = Find(m_rules, parts);
    return known == m_rules.end() ? 0 : known->parts.expiration;
}

std::vector<RuleInForce> RuleTable::DropExpired(time_t now) {
    const auto isInForce = [now](const RuleInForce& rule) { return rule.parts.expiration > now; };
    const auto firstGone = std::stable_partition(m_rules.begin(), m_rules.end(), isInForce);
    std::vector<RuleInForce> gone(std::make_move_iterator(firstGone),
                                  std::make_move_iterator(m_rules.end()));
    m_rules.erase(firstGone, m_rules.end());
    return gone;
}

}  // namespace tarnctl
