#include <algorithm>
#include <ctime>
#include <list>
#include <utility>

#include "tarnctl/common/counted.h"
#include "tarnctl/secmgr/rule_enforcer.h"

// What outlives the manager. The order is always: the kernel, then the file, then the answer. So a
// rule that was answered is in both, and one that a kill caught in between is in the kernel until
// the next start, which takes what the file has for what holds.

namespace tarnctl {

std::string RuleEnforcer::Restore() {
    RuleTable table;
    const time_t now = std::time(nullptr);
    std::string reason = m_state ? m_state->Read(table, m_tell) : "";
    if (!reason.empty()) {
        return reason;
    }
    const size_t ended = table.DropExpired(now).size();
    DropWhatMayNotBeRestored(table);
    std::vector<NftQuarantine::TimedRule> rules;
    for (const RuleInForce& rule : table.Rules()) {
        rules.emplace_back(rule.parts, SecondsLeft(rule, now));
    }
    if (UsesKernel()) {
        m_nft.GiveTime(rules.empty() ? NftQuarantine::kTimeForARule
                                     : NftQuarantine::kTimeForAStart);
        reason = m_nft.Open(rules);
    }
    if (!reason.empty()) {
        return reason;
    }
    m_table = std::move(table);
    if (!m_state) {
        return "";
    }
    m_tell(Counted(rules.size(), "rule") + " of " + m_settings.state +
           (m_settings.dryRun ? " would be in force again, " : " in force again, ") +
           std::to_string(ended) + " had ended");
    KeepState();
    return "";
}

// What is protected now may not have been when the rule was put into force.
void RuleEnforcer::DropWhatMayNotBeRestored(RuleTable& table) {
    const auto isProtected = [this](const RuleInForce& rule) {
        return rule.parts.intruder.empty() && rule.parts.victim.empty()
                   ? true
                   : !ProtectionFrom(rule.parts, m_never).empty();
    };
    for (const RuleInForce& rule : table.TakeOut(isProtected)) {
        TellEnd({rule}, ProtectionFrom(rule.parts, m_never));
    }
    size_t count = 0;
    const auto isTooMany = [&](const RuleInForce&) { return ++count > m_settings.maxRules; };
    const std::vector<RuleInForce> tooMany = table.TakeOut(isTooMany);
    TellEnd(tooMany, "over the limit of --max-rules");
}

std::string RuleEnforcer::Save() {
    return m_state && !m_settings.dryRun ? m_state->Rewrite(m_table.Rules()) : "";
}

std::string RuleEnforcer::Flush() {
    std::string reason;
    if (UsesKernel()) {
        m_nft.GiveTime();
        reason = m_nft.Remove();
    }
    const std::vector<RuleInForce> ended =
        reason.empty() ? m_table.TakeOut([](const RuleInForce&) { return true; })
                       : std::vector<RuleInForce>();
    return reason.empty() ? Save() : reason;
}

// A rule that was asked for again and ends as before is in the file already.
void RuleEnforcer::Note(const QuarantineParts& parts, time_t endBefore) {
    const RuleInForce* const rule = m_table.Find(parts);
    if (m_state && !m_settings.dryRun && rule != nullptr && rule->parts.expiration != endBefore) {
        m_state->NotePut(*rule);
    }
}

void RuleEnforcer::NoteEnded(const std::vector<RuleInForce>& rules) {
    for (const RuleInForce& rule : rules) {
        if (m_state && !m_settings.dryRun) {
            m_state->NoteEnded(rule);
        }
    }
}

void RuleEnforcer::KeepState() {
    const std::string reason =
        m_state && !m_settings.dryRun ? m_state->Upkeep(m_table.Rules()) : "";
    if (!reason.empty() && reason != m_stateTrouble) {
        m_tell("rules are in force that a restart would forget: " + reason);
    }
    m_stateTrouble = reason;
}

}  // namespace tarnctl
