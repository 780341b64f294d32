#pragma once

// Quarantine rules for the tests: the daemon's line for given parts, and parts at random.
//
// Threads: the test's own.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>

#include "quarantine/quarantine_rule.h"
#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// The line that the daemon writes; empty when it writes none.
inline std::string WriteQuarantineText(const QuarantineParts& parts) {
    QuarantineRule rule;
    if (rule.SetIpVersion(parts.ipVersion) != 0 || rule.SetExpiration(parts.expiration) != 0) {
        return "";
    }
    rule.SetIntruderAddress(parts.intruder);
    rule.SetVictimAddress(parts.victim);
    rule.SetProtocol(parts.protocol);
    if (parts.icmpType) {
        rule.SetIcmpType(*parts.icmpType);
    }
    if (parts.icmpCode) {
        rule.SetIcmpCode(*parts.icmpCode);
    }
    rule.SetSourcePort(parts.sourcePort);
    rule.SetDestinationPort(parts.destinationPort);
    rule.SetCounter(parts.counter);
    std::string text;
    return rule.ToString(text) == 0 ? text : "";
}

// Draws rules that the daemon can write. Every field is as often at its edges as in between.
class RandomParts {
  public:
    explicit RandomParts(uint64_t seed) : m_random(seed) {}

    QuarantineParts Next() {
        QuarantineParts parts;
        parts.ipVersion = Maybe() ? 4 : 6;
        parts.intruder = Maybe() ? Address(parts.ipVersion) : "";
        parts.victim = Maybe() ? Address(parts.ipVersion) : "";
        parts.protocol = Protocol(parts.ipVersion);
        switch (parts.protocol) {
            case IPPROTO_TCP:
            case IPPROTO_UDP:
                parts.sourcePort = static_cast<uint16_t>(Number(UINT16_MAX));
                parts.destinationPort = static_cast<uint16_t>(Number(UINT16_MAX));
                break;
            case IPPROTO_ICMP:
            case IPPROTO_ICMPV6:
                if (Maybe()) {
                    parts.icmpType = static_cast<uint8_t>(Number(UINT8_MAX));
                }
                if (Maybe()) {
                    parts.icmpCode = static_cast<uint8_t>(Number(UINT8_MAX));
                }
                break;
            default:
                break;
        }
        parts.counter = Maybe() ? static_cast<uint32_t>(Number(UINT32_MAX)) : 0;
        // From before the epoch to the time when years have six digits.
        parts.expiration = Maybe()
                               ? static_cast<time_t>(1 + Number(UINT32_MAX))
                               : static_cast<time_t>(Number(4000000000000)) - time_t{2000000000};
        if (parts.expiration == 0) {
            parts.expiration = 1;
        }
        return parts;
    }

    bool Maybe() { return (m_random() & 1U) != 0; }

    // 0 to `highest`.
    uint64_t Number(uint64_t highest) {
        switch (m_random() % 8) {
            case 0:
                return 0;
            case 1:
                return highest;
            default:
                return m_random() % (highest + 1);
        }
    }

  private:
    int Protocol(int ipVersion) {
        constexpr std::array<int, 4> kOften = {0, IPPROTO_TCP, IPPROTO_UDP, IPPROTO_ICMP};
        int protocol =
            Maybe() ? kOften.at(m_random() % kOften.size()) : static_cast<int>(m_random() % 256);
        if (protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6) {
            protocol = ipVersion == 4 ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
        }
        return protocol;
    }

    std::string Address(int ipVersion) {
        std::array<uint8_t, 16> bytes = {};
        for (uint8_t& byte : bytes) {
            // Zeros in runs are what makes an IPv6 address short.
            byte = Maybe() ? uint8_t{0} : static_cast<uint8_t>(m_random());
        }
        std::array<char, INET6_ADDRSTRLEN> text = {};
        inet_ntop(ipVersion == 4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
        return text.data();
    }

    std::mt19937_64 m_random;
};

}  // namespace tarnctl
