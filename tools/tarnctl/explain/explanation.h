#pragma once

// What the daemon does when one signature fires on one alert, as a value with the reasons in words.
// The decisions are those of the daemon's own policy code (events/policy_decision.h); this only
// puts them together and words them.
//
// Threads: pure functions.

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

class CrmEventSource;
struct Node;

namespace tarnctl {

// One block rule of the entry.
struct BlockExplanation {
    uint32_t flags = 0;              // BlockRuleFlag, as configured
    uint64_t duration = 0;           // seconds; 0 is not assigned
    uint32_t rateLimit = 0;          // 0 is none
    bool isSent = false;             // the rule goes to the security manager
    std::string reason;              // why it is not sent, as in "the entry asks for ports ..."
    std::string text;                // what is sent
    std::time_t expiration = 0;      // seconds since the epoch; set when it is sent
    std::vector<std::string> notes;  // what the daemon bends
};

struct Explanation {
    uint32_t signature = 0;
    bool hasEntry = false;  // without one the daemon ends, and nothing below counts

    // The report.
    std::string name;
    std::string severity;  // the word that is sent
    bool isSeveritySet = false;
    std::string userResponse;  // as it is sent
    bool withPacket = false;
    std::string packetReason;  // why the packet does not go with the report
    std::vector<std::pair<std::string, std::string>> pairs;  // in the order of the message

    // Blocking. Without a reason each block rule is considered.
    std::string blockReason;
    std::vector<BlockExplanation> blockRules;

    // Packets.
    bool isCaptured = false;
    std::string captureReason;   // why not
    uint32_t capturedBytes = 0;  // of the packet that goes with the request; 0 is none

    // True when at least one rule goes to the security manager.
    [[nodiscard]] bool AsksToBlock() const;
};

// `entry` is null for a signature that has none. `source` is what the daemon makes of the alert;
// the name-value pairs in it are those of the alert.
[[nodiscard]] Explanation Explain(uint32_t signature, const Node* entry,
                                  const CrmEventSource& source);

// The number of ICMP in that IP version.
[[nodiscard]] int IcmpProtocol(bool isIpv6);

}  // namespace tarnctl
