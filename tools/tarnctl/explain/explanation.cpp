#include "tarnctl/explain/explanation.h"

#include <netinet/in.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "config/event_rule_node.h"
#include "crm/crm_event_message.h"
#include "crm/crm_event_source.h"
#include "events/policy_decision.h"
#include "tarnctl/common/protocol_name.h"

namespace tarnctl {
namespace {

using tarn::policy::BlockDecision;
using tarn::policy::BlockOutcome;
using tarn::policy::CaptureOutcome;
using tarn::policy::QuarantineOutcome;

constexpr uint32_t kAddressFlags = kBlockIntruderAddress | kBlockVictimAddress;

std::string TextFaultReason(const BlockDecision& decision, const CrmEventSource& source) {
    using Fault = QuarantineRule::TextFault;
    switch (decision.textFault) {
        case Fault::kProtocol:
            return "a rule for IP version " + std::to_string(source.GetIpVersion()) +
                   " cannot name protocol " + std::to_string(source.GetProtocol()) +
                   ", which is ICMP of the other version";
        case Fault::kNoExpiration:
            return "the time of the event and the duration come to the time 0";
        case Fault::kExpirationTime:
        case Fault::kExpirationForm:
            return "the time of the event and the duration come to a time that has no date";
        default:
            return "the rule cannot be written";
    }
}

std::string BlockReason(const BlockDecision& decision, const CrmEventSource& source) {
    const std::string protocol = ProtocolName(source.GetProtocol());
    switch (decision.outcome) {
        case BlockOutcome::kSent:
            return {};
        case BlockOutcome::kOtherFamily:
            return tarn::policy::IsIcmp(source.GetProtocol())
                       ? "the entry asks for ports and this is " + protocol
                       : "the entry asks for an ICMP type or code and this is " + protocol;
        case BlockOutcome::kNothingNamed:
            return (decision.flags & kBlockIssue) != 0
                       ? "the entry asks for the signature only, and rules for signatures are not supported"
                       : "the entry asks for neither an address nor a port nor an ICMP field";
        case BlockOutcome::kNoAddress:
            return "the alert's address has no text";
        case BlockOutcome::kNoIpVersion:
            return "the alert's IP version is neither 4 nor 6";
        case BlockOutcome::kNoText:
            return TextFaultReason(decision, source);
    }
    return {};
}

std::vector<std::string> BlockNotes(const BlockRule& blockRule, const BlockDecision& decision,
                                    uint16_t protocol) {
    std::vector<std::string> notes;
    if ((blockRule.flags & kBlockIntruderSubnet) != 0) {
        notes.emplace_back("the intruder's subnet is not supported; its address is used");
    }
    if ((blockRule.flags & kBlockVictimSubnet) != 0) {
        notes.emplace_back("the victim's subnet is not supported; its address is used");
    }
    if (!tarn::policy::Applies(decision.outcome)) {
        return notes;
    }
    if ((blockRule.flags & kBlockIssue) != 0) {
        notes.emplace_back("rules for signatures are not supported; that part is ignored");
    }
    const uint32_t other = tarn::policy::IsIcmp(protocol) ? kBlockIntruderPort | kBlockVictimPort
                                                          : kBlockIcmpType | kBlockIcmpCode;
    if ((decision.flags & other) != 0) {
        notes.emplace_back(tarn::policy::IsIcmp(protocol)
                               ? "the ports are ignored, since this is " + ProtocolName(protocol)
                               : "the ICMP fields are ignored, since this is " +
                                     ProtocolName(protocol));
    }
    if ((decision.flags & kAddressFlags) == 0) {
        notes.emplace_back("the rule names no address, so it holds for all");
    }
    if (decision.isDefaultEnd) {
        notes.emplace_back("no duration is set, so it is " +
                           std::to_string(tarn::policy::kDefaultBlockSeconds) + " seconds");
    }
    return notes;
}

BlockExplanation ExplainBlock(const BlockRule& blockRule, const CrmEventSource& source) {
    BlockDecision decision = tarn::policy::DecideBlock(source, blockRule);
    BlockExplanation block;
    block.flags = blockRule.flags;
    block.duration = blockRule.duration;
    block.rateLimit = blockRule.rateLimit;
    block.isSent = decision.outcome == BlockOutcome::kSent;
    block.reason = BlockReason(decision, source);
    block.notes = BlockNotes(blockRule, decision, source.GetProtocol());
    if (block.isSent) {
        block.text = std::move(decision.text);
        block.expiration = decision.expiration;
    }
    return block;
}

void ExplainBlocking(const Node& entry, const CrmEventSource& source, Explanation& explanation) {
    switch (tarn::policy::DecideQuarantine(source.GetProtocol(), entry.responseFlags,
                                           entry.blockRules)) {
        case QuarantineOutcome::kNoResponse:
            explanation.blockReason =
                entry.responseFlags == 0
                    ? "the entry's response asks for no quarantine"
                    : "the entry's response is for other traffic and this is " +
                          ProtocolName(source.GetProtocol());
            break;
        case QuarantineOutcome::kNoRules:
            explanation.blockReason = "the entry has no block rule";
            break;
        case QuarantineOutcome::kConsidered:
            for (const BlockRule& blockRule : entry.blockRules) {
                explanation.blockRules.push_back(ExplainBlock(blockRule, source));
            }
            break;
    }
}

void ExplainReport(const Node& entry, const CrmEventSource& source, Explanation& explanation) {
    const tarn::policy::ReportDecision report =
        tarn::policy::DecideReport(source.GetIssueId(), &entry);
    explanation.name = report.eventName.Text();
    explanation.isSeveritySet = CrmEventMessage::IsSeverity(report.severity);
    explanation.severity = CrmEventMessage::SeverityWord(report.severity);
    // The CRM expects lists there, and so one comma in front is lost on the way.
    const std::string& response = report.userResponse.Text();
    explanation.userResponse = response.starts_with(',') ? response.substr(1) : response;
    const bool hasPacket = source.GetPacket().pData != nullptr;
    const bool wantsPacket = (report.userResponseFlags & kUserResponseWithRaw) != 0;
    explanation.withPacket = hasPacket && wantsPacket;
    if (!wantsPacket) {
        explanation.packetReason = "the entry's user response does not ask for it (WithRaw)";
    } else if (!hasPacket) {
        explanation.packetReason = "the alert has none";
    }
    std::map<std::string, std::string> pairs;
    for (const CrmEventSource::NameValue& pair : source.GetNameValues()) {
        pairs[pair.key] = pair.value.Text();
    }
    pairs["Rule"] = entry.rule;
    explanation.pairs.assign(pairs.begin(), pairs.end());
}

void ExplainCapture(const Node& entry, const CrmEventSource& source, Explanation& explanation) {
    switch (tarn::policy::DecideCapture(entry.userResponseFlags)) {
        case CaptureOutcome::kRequested:
            explanation.isCaptured = true;
            explanation.capturedBytes = source.GetPacket().uPacketLength;
            break;
        case CaptureOutcome::kNotAsked:
            explanation.captureReason =
                "the entry's user response does not ask for evidence (LOGEVIDENCE)";
            break;
        case CaptureOutcome::kScopeNamed:
            explanation.captureReason =
                "the entry's user response names a connection or an interface beside LOGEVIDENCE, "
                "and an alert has neither";
            break;
    }
}

}  // namespace

bool Explanation::AsksToBlock() const {
    return std::any_of(blockRules.begin(), blockRules.end(),
                       [](const BlockExplanation& block) { return block.isSent; });
}

Explanation Explain(uint32_t signature, const Node* entry, const CrmEventSource& source) {
    Explanation explanation;
    explanation.signature = signature;
    explanation.hasEntry = entry != nullptr;
    if (entry != nullptr) {
        ExplainReport(*entry, source, explanation);
        ExplainBlocking(*entry, source, explanation);
        ExplainCapture(*entry, source, explanation);
    }
    return explanation;
}

int IcmpProtocol(bool isIpv6) {
    return isIpv6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
}

}  // namespace tarnctl
