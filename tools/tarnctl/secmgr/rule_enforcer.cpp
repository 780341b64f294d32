#include "tarnctl/secmgr/rule_enforcer.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <utility>

#include "tarnctl/common/counted.h"

namespace tarnctl {
namespace {

// How often a change of the ruleset by somebody else may come between.
constexpr int kTries = 3;

NftHooks HooksOf(const std::vector<std::string>& words) {
    NftHooks hooks;
    for (const auto& [word, hook] : kHookWords) {
        if (std::find(words.begin(), words.end(), word) != words.end()) {
            hooks.insert(hook);
        }
    }
    return hooks.empty() ? kUsualHooks : hooks;
}

}  // namespace

RuleEnforcer::RuleEnforcer(const EnforcerSettings& settings,
                           std::function<void(const std::string&)> tell)
    : m_settings(settings),
      m_tell(std::move(tell)),
      m_nft(settings.nftEngine, HooksOf(settings.hook)) {
    if (!settings.state.empty()) {
        m_state.emplace(settings.state);
    }
}

std::string RuleEnforcer::Begin() {
    if (!m_settings.nft) {
        return "";
    }
    if (UsesKernel() && !m_settings.nftEngine) {
        return "--nft: this tarnctl was built without libnftables";
    }
    std::string reason = UsesKernel() ? m_settings.objectionToNetwork() : "";
    reason = reason.empty() ? ReadLists(m_never) : reason;
    return reason.empty() ? Restore() : reason;
}

std::string RuleEnforcer::ReadLists(NeverList& never) const {
    std::string reason;
    for (const std::string& entry : m_settings.never) {
        reason = reason.empty() ? never.Add(entry, "--never") : reason;
    }
    for (const std::string& path : m_settings.neverFile) {
        reason = reason.empty() ? never.AddFile(path) : reason;
    }
    (void)never.AddAddresses(m_settings.hostAddresses());
    return reason;
}

std::string RuleEnforcer::ReloadLists() {
    NeverList never;
    std::string reason = ReadLists(never);
    if (reason.empty()) {
        m_never = std::move(never);
        m_listHasGrown = true;
        EndProtected();
    }
    return reason;
}

std::string RuleEnforcer::PutIntoForce(const QuarantineParts& parts, const std::string& text,
                                       uint32_t issueId, const std::string& why) {
    const time_t now = std::time(nullptr);
    Upkeep();
    if (m_settings.nft) {
        LearnHostAddresses();  // news of them may be under way
        std::string reason = ObjectionTo(parts, m_never, now);
        if (!reason.empty()) {
            return reason;
        }
    }
    if (parts.expiration > now && m_table.EndOf(parts) == 0 &&
        m_table.Rules().size() >= m_settings.maxRules) {
        return "the limit of " + Counted(m_settings.maxRules, "rule") +
               " in force is reached (--max-rules)";
    }
    const time_t endBefore = m_table.EndOf(parts);
    std::string reason = UsesKernel() ? PutIntoKernel(parts, now) : "";
    if (reason.empty()) {
        m_table.Add(parts, text, issueId, now, why);
        Note(parts, endBefore);
    }
    return reason;
}

std::string RuleEnforcer::PutIntoKernel(const QuarantineParts& parts, time_t now) {
    m_nft.GiveTime();
    bool isStale = m_table.EndOf(parts) != 0;
    std::string reason = isStale ? "" : m_nft.Apply(parts, parts.expiration - now, isStale);
    for (int tries = 0; isStale && reason.empty() && tries < kTries; ++tries) {
        reason = CheckKernel();
        reason = reason.empty() ? DropIfRemoved(parts) : reason;
        if (!reason.empty()) {
            break;
        }
        // A rule that the kernel has is left alone unless its end is later now: a rule with a limit
        // would begin to count again.
        if (m_table.EndOf(parts) >= parts.expiration) {
            return "";
        }
        reason = m_nft.Apply(parts, parts.expiration - now, isStale);
    }
    return isStale && reason.empty() ? "somebody else keeps changing the ruleset" : reason;
}

std::string RuleEnforcer::DropIfRemoved(const QuarantineParts& parts) {
    if (m_table.EndOf(parts) != 0 && !m_nft.IsCertain(parts)) {
        bool isThere = false;
        std::string reason = m_nft.Find(parts, isThere);
        if (!reason.empty()) {
            return reason;
        }
        if (!isThere) {
            QuarantineParts wanted = parts;
            DropAndTell(
                [&](const RuleInForce& rule) {
                    wanted.expiration = rule.parts.expiration;
                    return rule.parts == wanted;
                },
                "somebody else has removed it");
        }
    }
    return "";
}

std::string RuleEnforcer::CheckKernel() {
    bool isLost = false;
    std::string reason = m_nft.Check(isLost);
    if (isLost) {
        DropAndTell([](const RuleInForce&) { return true; },
                    "somebody else has removed the table inet tarn");
    }
    return reason;
}

void RuleEnforcer::Upkeep() {
    for (const RuleInForce& rule : m_table.DropExpired(std::time(nullptr))) {
        m_nft.Forget(rule.parts);
        TellEnd({rule}, "");
    }
    if (!m_settings.nft) {
        return;
    }
    if (m_watch.HasNews()) {
        LearnHostAddresses();
    }
    EndProtected();
    KeepState();
}

void RuleEnforcer::LearnHostAddresses() {
    if (m_never.AddAddresses(m_settings.hostAddresses())) {
        m_listHasGrown = true;
        EndProtected();
    }
}

// What fails is tried again at the next upkeep.
void RuleEnforcer::EndProtected() {
    if (!m_listHasGrown) {
        return;
    }
    const auto isProtected = [this](const RuleInForce& rule) {
        return !ProtectionFrom(rule.parts, m_never).empty();
    };
    std::vector<QuarantineParts> rules;
    for (const RuleInForce& rule : m_table.Rules()) {
        if (isProtected(rule)) {
            rules.push_back(rule.parts);
        }
    }
    std::string reason;
    if (!rules.empty() && UsesKernel()) {
        m_nft.GiveTime();
        reason = CheckKernel();
        reason = reason.empty() ? m_nft.Withdraw(rules) : reason;
    }
    if (!reason.empty()) {
        if (reason != m_lastTrouble) {
            m_tell("rules that must end are still in force: " + reason);
        }
        m_lastTrouble = reason;
        return;
    }
    m_lastTrouble.clear();
    m_listHasGrown = false;
    const std::vector<RuleInForce> ended = m_table.TakeOut(isProtected);
    NoteEnded(ended);
    for (const RuleInForce& rule : ended) {
        TellEnd({rule}, ProtectionFrom(rule.parts, m_never));
    }
}

std::string RuleEnforcer::End(const std::function<bool(const RuleInForce&)>& isWanted,
                              const std::string& why, std::vector<RuleInForce>& ended) {
    std::vector<QuarantineParts> rules;
    for (const RuleInForce& rule : m_table.Rules()) {
        if (isWanted(rule)) {
            rules.push_back(rule.parts);
        }
    }
    if (UsesKernel() && !rules.empty()) {
        m_nft.GiveTime(NftQuarantine::kTimeForAList);
        std::string reason = CheckKernel();
        reason = reason.empty() ? m_nft.Withdraw(rules) : reason;
        if (!reason.empty()) {
            return reason;
        }
    }
    ended = m_table.TakeOut(isWanted);
    NoteEnded(ended);
    TellEnd(ended, why);
    return "";
}

NeverCover RuleEnforcer::ProtectionOf(const std::string& address) {
    if (!m_settings.nft) {
        return {};
    }
    LearnHostAddresses();
    return m_never.CoverOf(address);
}

void RuleEnforcer::CompareWithKernel(std::map<std::string, NftDropped>* dropped) {
    const auto isCertain = [this](const RuleInForce& rule) { return m_nft.IsCertain(rule.parts); };
    if (!UsesKernel() || m_table.Rules().empty()) {
        return;
    }
    m_nft.GiveTime(NftQuarantine::kTimeForAList);
    std::string reason = CheckKernel();
    const bool isDoubtful = !std::all_of(m_table.Rules().begin(), m_table.Rules().end(), isCertain);
    if (reason.empty() && (isDoubtful || dropped != nullptr)) {
        std::map<std::string, NftDropped> elements;
        reason = m_nft.List(elements);
        // An element whose time is just over may be gone from there before it is from here.
        if (reason.empty() && isDoubtful) {
            DropAndTell(
                [&](const RuleInForce& rule) {
                    return !elements.contains(ToNftElement(rule.parts).Id());
                },
                "somebody else has removed it");
        }
        if (dropped != nullptr) {
            *dropped = std::move(elements);
        }
    }
    if (!reason.empty()) {
        m_tell("the table inet tarn cannot be read, so some of these rules may have ended: " +
               reason);
    }
}

void RuleEnforcer::TellEnd(const std::vector<RuleInForce>& rules, const std::string& why) {
    for (const RuleInForce& rule : rules) {
        m_tell("no longer in force" + (why.empty() ? "" : " (" + why + ")") + ": SID " +
               std::to_string(rule.issueId) + "  " + rule.text);
    }
}

void RuleEnforcer::DropAndTell(const std::function<bool(const RuleInForce&)>& isGone,
                               const std::string& why) {
    const std::vector<RuleInForce> gone = m_table.TakeOut(isGone);
    for (const RuleInForce& rule : gone) {
        m_nft.Forget(rule.parts);
    }
    NoteEnded(gone);
    TellEnd(gone, why);
}

}  // namespace tarnctl
