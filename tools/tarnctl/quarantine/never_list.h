#pragma once

// The addresses that no quarantine may touch.
//
// Threads: one at a time.

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

class NeverList {
  public:
    // An address, or a network as address and prefix length. Returns an empty string, or the reason
    // why the text is none.
    [[nodiscard]] std::string Add(const std::string& text);

    // The same for each line of a file; what follows a # and empty lines do not count.
    [[nodiscard]] std::string AddFile(const std::string& path);

    // Loopback, and whatever the interfaces of this host have at the moment of the call. The
    // addresses of an earlier call stay, so that a rule is not let through while one moves.
    void AddHostAddresses();

    // The entry that an address falls under, as it was added; empty when it falls under none, and
    // when it is no address.
    [[nodiscard]] std::string Covering(const std::string& address) const;

  private:
    struct Network {
        int family;  // AF_INET or AF_INET6
        std::array<uint8_t, sizeof(in6_addr)> bytes;
        unsigned prefix;  // bits, 0 to 32 or 128
        std::string text;
    };

    std::vector<Network> m_networks;
};

// Why a rule must not be put into force in the kernel: it names no address and so would cut off
// everybody, its end has come already, or an address of it is on the list. Empty when it may be.
[[nodiscard]] std::string ObjectionTo(const QuarantineParts& parts, const NeverList& never,
                                      time_t now);

}  // namespace tarnctl
