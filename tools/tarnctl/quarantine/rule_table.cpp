#include "tarnctl/quarantine/rule_table.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarnctl {
namespace {

QuarantineParts WithoutEnd(QuarantineParts parts) {
    parts.expiration = 0;
    return parts;
}

}  // namespace

int64_t SecondsLeft(const RuleInForce& rule, time_t now) {
    return rule.parts.expiration - std::max(now, rule.since);
}

// Addresses, protocol and ports tell most rules apart; rules that share them share a place.
size_t RuleTable::Hash::operator()(const QuarantineParts& parts) const {
    constexpr size_t kFactor = 31;
    size_t hash = std::hash<std::string>()(parts.intruder);
    hash = hash * kFactor + std::hash<std::string>()(parts.victim);
    hash = hash * kFactor + static_cast<size_t>(parts.protocol);
    hash = hash * kFactor + parts.sourcePort;
    return hash * kFactor + parts.destinationPort;
}

void RuleTable::Add(const QuarantineParts& parts, const std::string& text, uint32_t issueId,
                    time_t now, const std::string& why) {
    if (parts.expiration <= now) {
        return;
    }
    const QuarantineParts key = WithoutEnd(parts);
    const auto known = m_places.find(key);
    if (known == m_places.end()) {
        m_places.emplace(
            key, m_rules.insert(
                     m_rules.end(),
                     {.parts = parts, .text = text, .issueId = issueId, .since = now, .why = why}));
        m_firstEnd = std::min(m_firstEnd, parts.expiration);
        return;
    }
    RuleInForce& rule = *known->second;
    if (parts.expiration > rule.parts.expiration) {
        rule.parts.expiration = parts.expiration;
        rule.text = text;
        rule.since = now;
    }
    rule.why = why.empty() ? rule.why : why;
    rule.issueId = issueId;
    ++rule.asked;
}

void RuleTable::Restore(RuleInForce rule) {
    const QuarantineParts key = WithoutEnd(rule.parts);
    m_firstEnd = std::min(m_firstEnd, rule.parts.expiration);
    const auto known = m_places.find(key);
    if (known == m_places.end()) {
        m_places.emplace(key, m_rules.insert(m_rules.end(), std::move(rule)));
    } else {
        *known->second = std::move(rule);
    }
}

const RuleInForce* RuleTable::Find(const QuarantineParts& parts) const {
    const auto known = m_places.find(WithoutEnd(parts));
    return known == m_places.end() ? nullptr : &*known->second;
}

bool RuleTable::TakeOutOne(const QuarantineParts& parts) {
    const auto known = m_places.find(WithoutEnd(parts));
    if (known == m_places.end()) {
        return false;
    }
    m_rules.erase(known->second);
    m_places.erase(known);
    return true;
}

time_t RuleTable::EndOf(const QuarantineParts& parts) const {
    const RuleInForce* const rule = Find(parts);
    return rule == nullptr ? 0 : rule->parts.expiration;
}

std::vector<RuleInForce> RuleTable::DropExpired(time_t now) {
    if (now < m_firstEnd) {
        return {};
    }
    std::vector<RuleInForce> gone =
        TakeOut([now](const RuleInForce& rule) { return rule.parts.expiration <= now; });
    m_firstEnd = std::numeric_limits<time_t>::max();
    for (const RuleInForce& rule : m_rules) {
        m_firstEnd = std::min(m_firstEnd, rule.parts.expiration);
    }
    return gone;
}

std::vector<RuleInForce> RuleTable::TakeOut(
    const std::function<bool(const RuleInForce&)>& isWanted) {
    std::vector<RuleInForce> taken;
    for (auto rule = m_rules.begin(); rule != m_rules.end();) {
        if (!isWanted(*rule)) {
            ++rule;
            continue;
        }
        m_places.erase(WithoutEnd(rule->parts));
        taken.push_back(std::move(*rule));
        rule = m_rules.erase(rule);
    }
    return taken;
}

}  // namespace tarnctl
