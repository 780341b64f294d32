#pragma once

// Quarantine rules put into force in the kernel. Only the table `inet tarn` is touched, and `bridge
// tarn` where that is wanted; nft_script.h describes what is in them.
//
// What is in force is what the kernel has, and other programs may change that at any time. So
// before a rule is put into force, Check() compares the generation of the ruleset with the one that
// this class left, and mends the table when they differ.
//
// Threads: one at a time. Each operation waits for the kernel, but only until the time is over that
// GiveTime() gave.

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tarnctl/quarantine/nft_engine.h"
#include "tarnctl/quarantine/nft_script.h"
#include "tarnctl/quarantine/nft_worker.h"
#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// What the kernel has dropped for one element since it was put in.
struct NftDropped {
    bool isKnown = false;  // it is not for an element with a limit
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

class NftQuarantine {
  public:
    static constexpr std::chrono::seconds kTimeForARule{1};
    static constexpr std::chrono::seconds kTimeForAList{2};
    static constexpr std::chrono::seconds kTimeForAStart{30};

    using TimedRule = std::pair<QuarantineParts, int64_t>;

    explicit NftQuarantine(NftEngineMaker maker, NftHooks hooks = kUsualHooks);

    // The operations that follow have this much time together.
    void GiveTime(std::chrono::seconds time = kTimeForARule);

    // Each of these returns an empty string, or the reason why it failed.

    // Begins with a table that holds these rules, each for so many seconds. What an earlier manager
    // left in it ends at the same moment. Where the kernel does not take so many rules at once,
    // they come one after the other.
    [[nodiscard]] std::string Open(const std::vector<TimedRule>& rules = {});

    // Makes certain that the table works. `isLost` is true if somebody has removed it: then nothing
    // is in force any more, and an empty table has taken its place.
    [[nodiscard]] std::string Check(bool& isLost);

    // Puts the rule into force for this many seconds, or changes how long it lasts. Does nothing
    // and sets `isStale` if somebody else has changed the ruleset; then Check() comes first.
    [[nodiscard]] std::string Apply(const QuarantineParts& parts, int64_t seconds, bool& isStale);

    // Ends these rules. Some of them may have ended already when it fails.
    [[nodiscard]] std::string Withdraw(const std::vector<QuarantineParts>& rules);

    // Whether the kernel has the rule.
    [[nodiscard]] std::string Find(const QuarantineParts& parts, bool& isThere);

    // Each element that the kernel has, by its Id().
    [[nodiscard]] std::string List(std::map<std::string, NftDropped>& elements);

    // Removes the table; every quarantine ends.
    [[nodiscard]] std::string Remove();

    // Whether the rule is known to be in the kernel: nobody else has changed the ruleset since the
    // rule was put there. It may be there nevertheless.
    [[nodiscard]] bool IsCertain(const QuarantineParts& parts) const;

    // The rule has ended; nothing need be known of it any more.
    void Forget(const QuarantineParts& parts);

    [[nodiscard]] pid_t WorkerProcess() const { return m_worker.Process(); }

  private:
    NftAnswer Change(const std::string& script, uint32_t onlyAt = 0);
    NftAnswer Query(const std::string& script);
    // The number of each table named tarn, by its family; no later table gets it again.
    using Handles = std::map<std::string, uint64_t>;
    [[nodiscard]] std::string AskForHandles(Handles& handles, uint32_t& generation);
    [[nodiscard]] bool HasLost(const Handles& handles) const;
    // The script that makes fresh tables with these elements, and removes what a manager with other
    // hooks has left.
    [[nodiscard]] std::string FreshTablesWith(
        const std::map<std::string, NftTimedElements>& elements);
    [[nodiscard]] std::string Mend(uint32_t generation);
    NftAnswer OpenInPieces(const std::map<std::string, NftTimedElements>& elements);

    NftWorker m_worker;
    NftWorker::Clock::time_point m_end;
    uint32_t m_generation = 0;  // of the ruleset after the last change; 0: unknown
    const NftHooks m_hooks;
    Handles m_handles;                   // of all of them, or none
    NftSets m_sets;                      // those that are in the table
    std::set<std::string> m_certain;     // Id() of elements
    std::vector<NftElement> m_doubtful;  // whose change was given up, and which must not be there
};

}  // namespace tarnctl
