#pragma once

// Quarantine rules put into force in the kernel, through the nft command. Only the table
// `inet tarn` is touched (nft_script.h tells what is in it).
//
// Threads: one at a time. Each operation waits for nft, which takes some milliseconds.

#include <cstdint>
#include <set>
#include <string>

#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

class NftQuarantine {
  public:
    explicit NftQuarantine(std::string command = "/usr/sbin/nft");

    // Each returns an empty string, or the reason why it failed.

    // Begins with an empty table: what an earlier manager left in it ends.
    [[nodiscard]] std::string Open();

    // Puts the rule into force for this many seconds, or changes how long it has yet.
    [[nodiscard]] std::string Apply(const QuarantineParts& parts, int64_t seconds);

    // Removes the table; every quarantine ends.
    [[nodiscard]] std::string Remove();

  private:
    // Runs nft on a script, which is carried out whole or not at all.
    [[nodiscard]] std::string Run(const std::string& script) const;

    const std::string m_command;
    std::set<std::string> m_sets;  // those that are in the table
};

}  // namespace tarnctl
