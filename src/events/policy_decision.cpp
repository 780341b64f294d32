#include "events/policy_decision.h"

#include <netinet/in.h>

#include <utility>

#include "crm/crm_event_source.h"

namespace tarn::policy {
namespace {

constexpr const char* kCaptureUserString = "SNORT";  // how packets of events are labelled

constexpr uint32_t kAddresses = kBlockIntruderAddress | kBlockVictimAddress;
constexpr uint32_t kPorts = kBlockIntruderPort | kBlockVictimPort;
constexpr uint32_t kIcmpFields = kBlockIcmpType | kBlockIcmpCode;

// Subnets are not supported: an address takes the place of each.
uint32_t WithAddressesForSubnets(uint32_t flags) {
    if ((flags & kBlockIntruderSubnet) != 0) {
        flags |= kBlockIntruderAddress;
    }
    if ((flags & kBlockVictimSubnet) != 0) {
        flags |= kBlockVictimAddress;
    }
    return flags;
}

// Puts the addresses that the flags ask for into the rule. True when it holds one.
bool SetAddresses(const CrmEventSource& source, BlockDecision& decision) {
    std::string address;
    bool haveAddress = false;
    if ((decision.flags & kBlockIntruderAddress) != 0) {
        decision.lacksIntruder = source.GetIntruderAddressText(address) != 0;
        if (!decision.lacksIntruder) {
            decision.rule.SetIntruderAddress(std::exchange(address, {}));
            haveAddress = true;
        }
    }
    if ((decision.flags & kBlockVictimAddress) != 0) {
        decision.lacksVictim = source.GetVictimAddressText(address) != 0;
        if (!decision.lacksVictim) {
            decision.rule.SetVictimAddress(std::move(address));
            haveAddress = true;
        }
    }
    return haveAddress;
}

// Puts the ICMP fields or the ports that the flags ask for into the rule, as the event's protocol
// has them. Sent when the flags fit the event, else why not.
//
// Deliberate: a field of the event's own family is enough without any address and beside fields
// of the other family, while an address is not enough beside fields of the other family only.
BlockOutcome SetProtocolFields(const CrmEventSource& source, bool haveAddress,
                               BlockDecision& decision) {
    const uint32_t flags = decision.flags;
    const bool icmp = IsIcmp(source.GetProtocol());
    if (icmp) {
        if ((flags & kBlockIcmpType) != 0) {
            decision.rule.SetIcmpType(source.GetIcmpType());
        }
        if ((flags & kBlockIcmpCode) != 0) {
            decision.rule.SetIcmpCode(source.GetIcmpCode());
        }
    } else {
        if ((flags & kBlockIntruderPort) != 0) {
            decision.rule.SetSourcePort(source.GetIntruderPort());
        }
        if ((flags & kBlockVictimPort) != 0) {
            decision.rule.SetDestinationPort(source.GetVictimPort());
        }
    }
    if ((flags & (icmp ? kIcmpFields : kPorts)) != 0) {
        return BlockOutcome::kSent;
    }
    if ((flags & (icmp ? kPorts : kIcmpFields)) != 0) {
        return BlockOutcome::kOtherFamily;
    }
    if (haveAddress) {
        return BlockOutcome::kSent;
    }
    return (flags & kAddresses) != 0 ? BlockOutcome::kNoAddress : BlockOutcome::kNothingNamed;
}

}  // namespace

bool IsIcmp(int protocol) {
    return protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6;
}

ReportDecision DecideReport(uint32_t issueId, const Node* entry) {
    if (entry == nullptr) {
        return {ReportText("Unknown Snort Event (" + std::to_string(issueId) + ")"),
                ReportText("DISPLAY:WithoutRaw"), 0, kSeverityLow};
    }
    return {ReportText::Borrow(entry->eventName), ReportText::Borrow(entry->userResponse),
            entry->userResponseFlags, entry->severity};
}

QuarantineOutcome DecideQuarantine(int protocol, uint32_t responseFlags,
                                   const std::list<BlockRule>& blockRules) {
    const uint32_t relevant =
        IsIcmp(protocol) ? kResponseQuarantineIcmp : kResponseQuarantineTraffic;
    if ((responseFlags & relevant) == 0) {
        return QuarantineOutcome::kNoResponse;
    }
    return blockRules.empty() ? QuarantineOutcome::kNoRules : QuarantineOutcome::kConsidered;
}

BlockDecision DecideBlock(const CrmEventSource& source, const BlockRule& blockRule) {
    BlockDecision decision;
    decision.flags = WithAddressesForSubnets(blockRule.flags);
    const int ipVersion = source.GetIpVersion();
    if (ipVersion != 4 && ipVersion != 6) {
        decision.outcome = BlockOutcome::kNoIpVersion;
        return decision;
    }
    (void)decision.rule.SetIpVersion(ipVersion);  // both versions are taken
    const bool haveAddress = SetAddresses(source, decision);
    decision.rule.SetProtocol(source.GetProtocol());
    decision.outcome = SetProtocolFields(source, haveAddress, decision);
    if (decision.outcome != BlockOutcome::kSent) {
        return decision;
    }
    decision.rule.SetCounter(blockRule.rateLimit);

    decision.isDefaultEnd = blockRule.duration == 0;
    // Deliberate: counted from the time of the event, so a late event's rule is already shorter.
    decision.expiration = static_cast<std::time_t>(
        source.GetStartTime() +
        (decision.isDefaultEnd ? kDefaultBlockSeconds : blockRule.duration));
    if (decision.expiration != 0) {
        (void)decision.rule.SetExpiration(decision.expiration);  // every other time is taken
    }
    decision.textFault = decision.rule.MakeText(decision.text);
    if (decision.textFault != QuarantineRule::TextFault::kNone) {
        decision.outcome = BlockOutcome::kNoText;
    }
    return decision;
}

CaptureOutcome DecideCapture(uint32_t userResponseFlags) {
    if ((userResponseFlags & kUserResponseLogPackets) != 0) {
        return CaptureOutcome::kRequested;
    }
    // Deliberate: a word for a scope switches the capture off. Scopes belong to connections and
    // interfaces, and an alert brings neither.
    return (userResponseFlags & kUserResponseLogEvidence) != 0 ? CaptureOutcome::kScopeNamed
                                                               : CaptureOutcome::kNotAsked;
}

EventReport CaptureReport(const CrmEventSource& source) {
    EventReport report = source.GetReport();
    report.userString = kCaptureUserString;
    return report;
}

}  // namespace tarn::policy
