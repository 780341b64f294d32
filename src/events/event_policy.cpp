// What the daemon does with one event: the members of EventBridge that turn an alert into a report
// by the rule table's entry for its signature. The order of the steps is part of the design: the
// report goes out last, so that it can say what was done before. What is to be done is decided in
// policy_decision; these members carry the decision out and log it.

#include <memory>
#include <utility>

#include "config/config.h"
#include "config/event_rule_node.h"
#include "crm/crm_event_producer.h"
#include "crm/crm_event_source.h"
#include "events/event_bridge.h"
#include "events/policy_decision.h"
#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "unified2/unified2_events.h"

using tarn::policy::BlockDecision;
using tarn::policy::BlockOutcome;
using tarn::policy::CaptureOutcome;
using tarn::policy::QuarantineOutcome;
using vald::Log;

namespace {

constexpr uint32_t kQuarantineFlags = 1;  // what the security manager expects of an event

// The lines about a decision, in the order in which its steps are taken. `configuredFlags` are the
// block rule's own.
void LogBlockDecision(BlockDecision& decision, uint32_t configuredFlags, int ipVersion,
                      int protocol) {
    Log& log = *Log::GetInstance();
    if ((configuredFlags & kBlockIntruderSubnet) != 0) {
        log.Write(
            Log::kInfo,
            "Don't know how to deal with quarantine-intruder-subnet. Treat it as quarantine-intruder-address.");
    }
    if ((configuredFlags & kBlockVictimSubnet) != 0) {
        log.Write(
            Log::kInfo,
            "Don't know how to deal with quarantine-victim-subnet. Treat it as quarantine-victim-address.");
    }
    if (decision.outcome == BlockOutcome::kNoIpVersion) {
        log.Write(Log::kError, "Unable to determine IP version: %d", ipVersion);
        return;
    }
    if (decision.lacksIntruder) {
        log.Write(Log::kWarning, "Unable to produce source address for quarantine rule.");
    }
    if (decision.lacksVictim) {
        log.Write(Log::kWarning, "Unable to produce destination address for quarantine rule.");
    }
    if (!tarn::policy::Applies(decision.outcome)) {
        // Deliberate: the flags are shown as the configuration gave them.
        if (tarn::policy::IsIcmp(protocol)) {
            log.Write(Log::kDebug, "Ignoring invalid block rule (0x%04x) for ICMP event (%d).",
                      configuredFlags, protocol);
        } else {
            log.Write(Log::kDebug, "Ignoring invalid block rule (0x%04x) for non-ICMP event (%d).",
                      configuredFlags, protocol);
        }
        return;
    }
    if ((configuredFlags & kBlockIssue) != 0) {
        log.Write(Log::kDebug, "Ignoring issue ID blocking for Snort event.");
    }
    if (decision.isDefaultEnd) {
        log.Write(Log::kInfo, "Block duration is not assigned. Use default value (3600) instead.");
    }
    if (decision.expiration == 0) {
        (void)decision.rule.SetExpiration(0);  // refused, with a line of its own
    }
    decision.rule.LogText(decision.textFault, decision.text);
}

// Deliberate: without an entry this faults, and the fatal signal ends the daemon. A sensor that
// alerts on signatures its rule table doesn't know runs on a broken configuration, and stopping
// tells the operator more than a report under an unknown name. The two barriers keep the compiler
// from knowing that the pointer is null and from dropping the read, and the sanitizers keep out of
// it, so that every build faults the same way.
__attribute__((noinline, no_sanitize("address"), no_sanitize("thread"), no_sanitize("undefined")))
uint32_t
UserResponseFlagsOf(const Node* entry) {
    asm volatile("" : "+r"(entry));
    uint32_t flags = entry->userResponseFlags;
    asm volatile("" : "+r"(flags));
    return flags;
}

// Deliberate: without the packet logging interface this faults in the same way. An entry that asks
// for its packets is a promise of evidence, and a daemon that cannot keep it does not run on.
__attribute__((noinline, no_sanitize("address"), no_sanitize("thread"), no_sanitize("undefined")))
PacketLogCtrl::PacketLogCtrlIF&
PresentPacketLog(PacketLogCtrl::PacketLogCtrlIF* packetLog) {
    asm volatile("" : "+r"(packetLog));
    (void)*reinterpret_cast<const volatile char*>(packetLog);
    return *packetLog;
}

}  // namespace

int EventBridge::ProcessOneEvent(U2AlertEvent* event) {
    Log& log = *Log::GetInstance();

    // Held to the end: a reload may drop the entry from the table meanwhile.
    const std::shared_ptr<Node> entry =
        Config::GetResponseSetting(static_cast<int>(event->m_signatureId));

    const std::unique_ptr<CrmEventSource> source(event->CreateCrmEventSource(true));
    if (source == nullptr) {
        log.Write(Log::kWarning,
                  "EventBridge failed to create CrmEventSource instance from U2AlertEvent.");
        return -2;
    }

    tarn::policy::ReportDecision report =
        tarn::policy::DecideReport(source->GetIssueId(), entry.get());
    if (entry == nullptr) {
        log.Write(Log::kWarning, "Fail to look up Snort event %d from TaRN rule configuration.",
                  source->GetIssueId());
    }
    source->SetEventName(std::move(report.eventName));
    source->SetUserResponse(report.userResponseFlags, std::move(report.userResponse));
    source->SetSeverity(report.severity);
    if (entry != nullptr) {
        // Before the report, so that the report can say so.
        if (ApplyQuarantinePolicy(source.get(), entry->responseFlags, entry->blockRules) == 0) {
            source->SetBlockedStatus(kReportBlocked);
        }
        source->AddNameValue("Rule", ReportText::Borrow(entry->rule));
    }

    const uint32_t userResponseFlags = UserResponseFlagsOf(entry.get());
    if (tarn::policy::DecideCapture(userResponseFlags) == CaptureOutcome::kRequested) {
        const EventReport labelled = tarn::policy::CaptureReport(*source);
        PresentPacketLog(m_packetLog)
            .SendOffendingPacketCapture(&labelled, &source->GetPacket(), 0, source->GetHeldBytes());
    }

    if (m_producer->SendEvent(source.get()) != 0) {
        log.Write(Log::kWarning, "Unable to dispatch CRM events.");
        return -2;
    }
    return 0;
}

int EventBridge::ApplyQuarantinePolicy(const CrmEventSource* source, uint32_t responseFlags,
                                       const std::list<BlockRule>& blockRules) {
    if (tarn::policy::DecideQuarantine(source->GetProtocol(), responseFlags, blockRules) !=
        QuarantineOutcome::kConsidered) {
        return 1;
    }
    bool added = false;
    for (const BlockRule& blockRule : blockRules) {
        added |= QuarantineByRule(source, &blockRule) == 0;
    }
    return added ? 0 : 1;
}

int EventBridge::QuarantineByRule(const CrmEventSource* source, const BlockRule* blockRule) {
    Log& log = *Log::GetInstance();
    log.Write(Log::kDebug, "Quarantine by rule: 0x%04x", blockRule->flags);
    BlockDecision decision = tarn::policy::DecideBlock(*source, *blockRule);
    LogBlockDecision(decision, blockRule->flags, source->GetIpVersion(), source->GetProtocol());
    switch (decision.outcome) {
        case BlockOutcome::kSent:
            break;
        case BlockOutcome::kOtherFamily:
        case BlockOutcome::kNothingNamed:
        case BlockOutcome::kNoAddress:
            return 1;
        case BlockOutcome::kNoIpVersion:
            return -1;
        case BlockOutcome::kNoText:
            log.Write(Log::kError, "Fail to construct quarantine rule string.");
            return -1;
    }
    const std::string& text = decision.text;
    if (m_dbtComm.AddQuarantineRules(kQuarantineFlags, text.c_str(), source->GetIssueId(), 0) !=
        0) {
        log.Write(Log::kError, "Fail to add quarantine rule %s.", text.c_str());
        return -1;
    }
    return 0;
}
