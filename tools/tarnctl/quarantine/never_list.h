#pragma once

// The addresses that no quarantine may touch.
//
// Some are on the list from the beginning, because hosts that must stay reachable depend on them:
// loopback, multicast (by which neighbours find each other), link-local, broadcast, unspecified.
//
// Threads: one at a time.

#include <cstddef>
#include <ctime>
#include <string>
#include <unordered_set>
#include <vector>

#include "tarnctl/quarantine/ip_network.h"
#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// An entry, as it was added, and where it is from; both empty for none.
struct NeverCover {
    std::string entry;
    std::string source;  // "FILE, line 3"
};

class NeverList {
  public:
    NeverList();

    // An address, or a network as address and prefix length. Returns an empty string, or the reason
    // why the text is none.
    [[nodiscard]] std::string Add(const std::string& text, const std::string& source = "");

    // The same for each line of a file; what follows a # and empty lines do not count.
    [[nodiscard]] std::string AddFile(const std::string& path);

    // Addresses that were read from the system. Those of an earlier call stay, so that a rule is
    // not let through while one moves. True if any of them is new.
    bool AddAddresses(const std::vector<std::string>& addresses);

    // Why an address is never quarantined: the entry that it falls under, as it was added. An IPv6
    // address that stands for an IPv4 address falls under that address's entries as well. Empty
    // when it falls under none, and when it is no address.
    [[nodiscard]] std::string Covering(const std::string& address) const {
        return CoverOf(address).entry;
    }
    // The same, with where the entry is from.
    [[nodiscard]] NeverCover CoverOf(const std::string& address) const;

    // How many entries there are.
    [[nodiscard]] size_t Size() const { return m_entries.size(); }

  private:
    struct Entry {
        IpNetwork network;
        std::string text;
        std::string source;
    };

    [[nodiscard]] NeverCover CoveringOne(const IpAddress& address) const;

    std::vector<Entry> m_entries;
    std::unordered_set<std::string> m_texts;  // of the entries
};

// Which address of a rule must not be touched, and why; empty if none.
[[nodiscard]] std::string ProtectionFrom(const QuarantineParts& parts, const NeverList& never);

// Why a rule must not be put into force in the kernel: it names no address and so would cut off
// everybody, its end has come already, neighbours could not find each other, or an address of it is
// on the list. Empty when it may be.
[[nodiscard]] std::string ObjectionTo(const QuarantineParts& parts, const NeverList& never,
                                      time_t now);

}  // namespace tarnctl
