#include "tarnctl/snort_rules/classifications.h"

#include <algorithm>
#include <array>

namespace tarnctl {
namespace {

struct Classification {
    std::string_view name;
    uint32_t priority;
};

// In the order of their names.
constexpr std::array kClassifications = {
    Classification{"attempted-admin", 1},
    Classification{"attempted-dos", 2},
    Classification{"attempted-recon", 2},
    Classification{"attempted-user", 1},
    Classification{"bad-unknown", 2},
    Classification{"client-side-exploit", 1},
    Classification{"coin-mining", 2},
    Classification{"command-and-control", 1},
    Classification{"credential-theft", 1},
    Classification{"default-login-attempt", 2},
    Classification{"denial-of-service", 2},
    Classification{"domain-c2", 1},
    Classification{"exploit-kit", 1},
    Classification{"external-ip-check", 2},
    Classification{"file-format", 1},
    Classification{"icmp-event", 3},
    Classification{"inappropriate-content", 1},
    Classification{"kickass-porn", 1},
    Classification{"malware-cnc", 1},
    Classification{"misc-activity", 3},
    Classification{"misc-attack", 2},
    Classification{"network-scan", 3},
    Classification{"non-standard-protocol", 2},
    Classification{"not-suspicious", 3},
    Classification{"policy-violation", 1},
    Classification{"protocol-command-decode", 3},
    Classification{"pup-activity", 2},
    Classification{"rpc-portmap-decode", 2},
    Classification{"sdf", 2},
    Classification{"shellcode-detect", 1},
    Classification{"social-engineering", 2},
    Classification{"string-detect", 3},
    Classification{"successful-admin", 1},
    Classification{"successful-dos", 2},
    Classification{"successful-recon-largescale", 2},
    Classification{"successful-recon-limited", 2},
    Classification{"successful-user", 1},
    Classification{"suspicious-filename-detect", 2},
    Classification{"suspicious-login", 2},
    Classification{"system-call-detect", 2},
    Classification{"targeted-activity", 1},
    Classification{"tcp-connection", 4},
    Classification{"trojan-activity", 1},
    Classification{"unknown", 3},
    Classification{"unsuccessful-user", 1},
    Classification{"unusual-client-port-connection", 2},
    Classification{"web-application-activity", 2},
    Classification{"web-application-attack", 1},
};

constexpr bool Precedes(const Classification& left, const Classification& right) {
    return left.name < right.name;
}

static_assert(std::is_sorted(kClassifications.begin(), kClassifications.end(), Precedes));

}  // namespace

uint32_t DefaultPriority(std::string_view classification) {
    const auto found = std::lower_bound(kClassifications.begin(), kClassifications.end(),
                                        Classification{classification, 0}, Precedes);
    return found != kClassifications.end() && found->name == classification ? found->priority : 0;
}

}  // namespace tarnctl
