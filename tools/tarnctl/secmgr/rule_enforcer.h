#pragma once

// Puts quarantine rules into force: in a table of the command's own, and, where that is wanted, in
// the kernel. It sees to it that what must not be cut off is not, neither at first nor later.
//
// Threads: one at a time.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/quarantine/host_addresses.h"
#include "tarnctl/quarantine/network_guard.h"
#include "tarnctl/quarantine/never_list.h"
#include "tarnctl/quarantine/nft_quarantine.h"
#include "tarnctl/quarantine/quarantine_state.h"
#include "tarnctl/quarantine/rule_table.h"

namespace tarnctl {

struct EnforcerSettings {
    bool nft = false;                    // rules are put into force in the kernel
    bool dryRun = false;                 // all is judged, nothing is changed
    std::vector<std::string> hook;       // words of kHookWords; none: the usual
    std::string state;                   // a file in which rules outlive this; empty: none
    uint64_t maxRules = 65536;           // in force at a time
    std::vector<std::string> never;      // addresses and networks
    std::vector<std::string> neverFile;  // files of them
    // Not options; tests use others.
    NftEngineMaker nftEngine;  // empty: this build has none
    std::function<std::vector<std::string>()> hostAddresses = HostAddresses;
    std::function<std::string()> objectionToNetwork = ObjectionToThisNetwork;
};

class RuleEnforcer {
  public:
    // What is worth reporting goes to `tell`. The settings live as long.
    RuleEnforcer(const EnforcerSettings& settings, std::function<void(const std::string&)> tell);

    // Each of these returns an empty string, or the reason why it failed.

    // Reads the lists, and begins with a table in the kernel that holds what the state file has and
    // nothing else.
    [[nodiscard]] std::string Begin();

    // The reason is the one for which the rule is refused.
    // `why` is what a person says who asks for it.
    [[nodiscard]] std::string PutIntoForce(const QuarantineParts& parts, const std::string& text,
                                           uint32_t issueId, const std::string& why = "");

    // Ends the rules for which this is true before their time, and reports each with `why`.
    [[nodiscard]] std::string End(const std::function<bool(const RuleInForce&)>& isWanted,
                                  const std::string& why, std::vector<RuleInForce>& ended);

    // Under which entry of the lists an address falls, with the host's addresses as they are now.
    // Where nothing is cut off, nothing is protected.
    [[nodiscard]] NeverCover ProtectionOf(const std::string& address);

    // Reads the lists again and ends the rules that they protect from now on. The lists stay as
    // they are if one cannot be read.
    [[nodiscard]] std::string ReloadLists();

    // Removes the table from the kernel, and the rules from the state file.
    [[nodiscard]] std::string Flush();

    // Has the state file written whole, as at the end.
    [[nodiscard]] std::string Save();

    // Drops the rules that have ended, and ends those whose address has become the host's own. To
    // be called now and then, and when Descriptor() becomes readable.
    void Upkeep();

    // Compares the rules with what the kernel has, if anybody else may have changed that. With
    // `dropped`, says what the kernel has dropped for each element, by its Id().
    void CompareWithKernel(std::map<std::string, NftDropped>* dropped = nullptr);

    // Whether rules are in force in the kernel.
    [[nodiscard]] bool CutsOff() const { return UsesKernel(); }

    [[nodiscard]] int Descriptor() const { return m_watch.Descriptor(); }
    [[nodiscard]] const RuleTable& Table() const { return m_table; }

  private:
    [[nodiscard]] bool UsesKernel() const { return m_settings.nft && !m_settings.dryRun; }
    [[nodiscard]] std::string Restore();
    void DropWhatMayNotBeRestored(RuleTable& table);
    void Note(const QuarantineParts& parts, time_t endBefore);
    void NoteEnded(const std::vector<RuleInForce>& rules);
    void KeepState();
    [[nodiscard]] std::string ReadLists(NeverList& never) const;
    [[nodiscard]] std::string PutIntoKernel(const QuarantineParts& parts, time_t now);
    // Drops the rule from the table if it is not in the kernel any more.
    [[nodiscard]] std::string DropIfRemoved(const QuarantineParts& parts);
    void LearnHostAddresses();
    void EndProtected();
    [[nodiscard]] std::string CheckKernel();
    void TellEnd(const std::vector<RuleInForce>& rules, const std::string& why);
    void DropAndTell(const std::function<bool(const RuleInForce&)>& isGone, const std::string& why);

    const EnforcerSettings& m_settings;
    const std::function<void(const std::string&)> m_tell;
    RuleTable m_table;
    NeverList m_never;
    AddressWatch m_watch;
    NftQuarantine m_nft;
    bool m_listHasGrown = false;  // rules in force may fall under it
    std::string m_lastTrouble;    // reported once
    std::optional<QuarantineState> m_state;
    std::string m_stateTrouble;  // reported once
};

}  // namespace tarnctl
