#pragma once

// Which entries can block an address that must stay reachable.
//
// Threads: one at a time.

#include <string>
#include <vector>

#include "tarnctl/check/finding.h"
#include "tarnctl/check/loaded_entry.h"

namespace tarnctl {

class StandardInput;

class ProtectList {
  public:
    // An address, a network as address and prefix length, or a file with one of them in each line,
    // "-" for standard input; what follows a # does not count. Returns an empty text, or the reason
    // why it is none.
    [[nodiscard]] std::string Add(const std::string& text, StandardInput& input);

    [[nodiscard]] bool IsEmpty() const { return m_networks.empty(); }

    // Adds a finding for each block rule that can cut off a protected address. A rule of the entry
    // whose header names addresses, and none of the protected ones, leaves them alone; where it has
    // a variable or "any", every address can be meant.
    void Check(const std::vector<LoadedEntry>& entries, Findings& findings) const;

    struct Network {
        int family = 0;  // AF_INET or AF_INET6
        unsigned char bytes[16] = {};
        unsigned prefix = 0;  // bits
        std::string text;     // as it was added
    };

  private:
    std::vector<Network> m_networks;
};

}  // namespace tarnctl
