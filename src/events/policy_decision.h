#pragma once

// What is to be done with one event, decided as values: the fields of its report, the outcome of
// each block rule with its reason, and whether its packets are captured. EventBridge carries the
// decision out (event_policy.cpp); whoever wants to know it beforehand asks the same functions.
//
// Nothing here logs, sends, or reads anything but its arguments.
//
// Owner: each caller owns the values that it gets. They borrow nothing, and are moved on where
// their texts go, so that deciding apart from acting costs no further copy.
//
// Threads: pure functions; any thread.

#include <cstdint>
#include <ctime>
#include <list>
#include <string>

#include "config/event_rule_node.h"
#include "crm/event_report_format.h"
#include "crm/report_text.h"
#include "quarantine/quarantine_rule.h"

class CrmEventSource;

namespace tarn::policy {

inline constexpr uint64_t kDefaultBlockSeconds = 3600;  // for a block rule without a duration

// True for the protocols of ICMP, whatever the event's IP version.
[[nodiscard]] bool IsIcmp(int protocol);

struct ReportDecision {
    ReportText eventName;
    ReportText userResponse;
    uint32_t userResponseFlags = 0;  // UserResponseFlag
    uint32_t severity = 0;           // EventSeverity; what is none is sent as low
};

// `entry` is null for a signature that is not in the table. The result borrows from it.
[[nodiscard]] ReportDecision DecideReport(uint32_t issueId, const Node* entry);

enum class QuarantineOutcome {
    kConsidered,  // each block rule is decided on
    kNoResponse,  // the response does not cover this kind of traffic
    kNoRules,     // the entry has no block rules
};

[[nodiscard]] QuarantineOutcome DecideQuarantine(int protocol, uint32_t responseFlags,
                                                 const std::list<BlockRule>& blockRules);

enum class BlockOutcome {
    kSent,          // the text goes to the security manager
    kOtherFamily,   // it asks for fields of the other kind of traffic and for none of this kind's
    kNothingNamed,  // it asks for neither an address nor a field
    kNoAddress,     // it asks for addresses only, and they have no text
    kNoIpVersion,   // the event's IP version is neither 4 nor 6
    kNoText,        // the rule cannot be written; textFault says why
};

// True where the block rule fits the event, though the rule may have no text.
[[nodiscard]] constexpr bool Applies(BlockOutcome outcome) {
    return outcome == BlockOutcome::kSent || outcome == BlockOutcome::kNoText;
}

struct BlockDecision {
    BlockOutcome outcome = BlockOutcome::kSent;
    uint32_t flags = 0;          // BlockRuleFlag; a subnet asks for its address too
    bool lacksIntruder = false;  // the intruder's address is asked for and has no text
    bool lacksVictim = false;    // the same for the victim's
    bool isDefaultEnd = false;   // the block rule has no duration
    std::time_t expiration = 0;  // seconds since the epoch; set with Sent and NoText
    QuarantineRule rule;         // as far as it was filled
    QuarantineRule::TextFault textFault = QuarantineRule::TextFault::kNone;
    std::string text;  // set with Sent
};

[[nodiscard]] BlockDecision DecideBlock(const CrmEventSource& source, const BlockRule& blockRule);

enum class CaptureOutcome {
    kRequested,   // the packet logging daemon is asked to keep the event's packet
    kNotAsked,    // the entry does not ask for packets
    kScopeNamed,  // it asks, but for a scope that an event cannot give
};

[[nodiscard]] CaptureOutcome DecideCapture(uint32_t userResponseFlags);

// The report as the packet logging interface gets it. It borrows a text that lives for ever.
[[nodiscard]] EventReport CaptureReport(const CrmEventSource& source);

}  // namespace tarn::policy
