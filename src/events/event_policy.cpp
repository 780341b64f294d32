// What the daemon does with one event: the members of EventBridge that turn an alert into a report
// by the rule table's entry for its signature. The order of the steps is part of the design: the
// report goes out last, so that it can tell of what was done before.

#include <netinet/in.h>

#include <memory>
#include <string>

#include "config/config.h"
#include "config/event_rule_node.h"
#include "crm/crm_event_producer.h"
#include "crm/crm_event_source.h"
#include "events/event_bridge.h"
#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "quarantine/quarantine_rule.h"
#include "unified2/unified2_events.h"

using vald::Log;

namespace {

constexpr uint64_t kDefaultBlockSeconds = 3600;
constexpr uint32_t kQuarantineFlags = 1;  // what the security manager expects of an event

bool IsIcmp(int protocol) {
    return protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6;
}

// Puts the addresses that the flags ask for into the rule. True when it holds one.
bool SetAddresses(const CrmEventSource& source, uint32_t flags, QuarantineRule& rule) {
    Log& log = *Log::GetInstance();
    bool haveAddress = false;
    std::string address;
    if ((flags & kBlockIntruderAddress) != 0) {
        haveAddress = source.GetIntruderAddressText(address) == 0;
        if (haveAddress) {
            rule.SetIntruderAddress(address);
        } else {
            log.Write(Log::kWarning, "Unable to produce source address for quarantine rule.");
        }
    }
    if ((flags & kBlockVictimAddress) != 0) {
        if (source.GetVictimAddressText(address) == 0) {
            rule.SetVictimAddress(address);
            haveAddress = true;
        } else {
            log.Write(Log::kWarning, "Unable to produce destination address for quarantine rule.");
        }
    }
    return haveAddress;
}

// Puts the ICMP fields or the ports that the flags ask for into the rule, as the event's protocol
// has them. False when the flags do not fit the event.
//
// Deliberate: a field of the event's own family is enough without any address and beside fields
// of the other family, while an address is not enough beside fields of the other family only.
bool SetProtocolFields(const CrmEventSource& source, uint32_t flags, bool haveAddress,
                       QuarantineRule& rule) {
    const bool icmp = IsIcmp(source.GetProtocol());
    constexpr uint32_t kIcmpFields = kBlockIcmpType | kBlockIcmpCode;
    constexpr uint32_t kPorts = kBlockIntruderPort | kBlockVictimPort;
    if (icmp) {
        if ((flags & kBlockIcmpType) != 0) {
            rule.SetIcmpType(source.GetIcmpType());
        }
        if ((flags & kBlockIcmpCode) != 0) {
            rule.SetIcmpCode(source.GetIcmpCode());
        }
    } else {
        if ((flags & kBlockIntruderPort) != 0) {
            rule.SetSourcePort(source.GetIntruderPort());
        }
        if ((flags & kBlockVictimPort) != 0) {
            rule.SetDestinationPort(source.GetVictimPort());
        }
    }
    const uint32_t own = icmp ? kIcmpFields : kPorts;
    const uint32_t other = icmp ? kPorts : kIcmpFields;
    return (flags & own) != 0 || ((flags & other) == 0 && haveAddress);
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

    if (entry == nullptr) {
        const uint32_t issueId = source->GetIssueId();
        log.Write(Log::kWarning, "Fail to look up Snort event %d from TaRN rule configuration.",
                  issueId);
        source->SetEventName("Unknown Snort Event (" + std::to_string(issueId) + ")");
        source->SetUserResponse(0, "DISPLAY:WithoutRaw");
        source->SetSeverity(kSeverityLow);
    } else {
        source->SetEventName(entry->eventName);
        source->SetUserResponse(entry->userResponseFlags, entry->userResponse);
        source->SetSeverity(entry->severity);
        // Before the report, so that the report can tell of it.
        if (ApplyQuarantinePolicy(source.get(), entry->responseFlags, entry->blockRules) == 0) {
            source->SetBlockedStatus(kReportBlocked);
        }
        source->AddNameValue("Rule", entry->rule);
    }

    if ((UserResponseFlagsOf(entry.get()) & kUserResponseLogPackets) != 0) {
        EventReport report = source->GetReport();
        report.userString = "SNORT";
        PresentPacketLog(m_packetLog)
            .SendOffendingPacketCapture(&report, &source->GetPacket(), 0, source->GetHeldBytes());
    }

    if (m_producer->SendEvent(source.get()) != 0) {
        log.Write(Log::kWarning, "Unable to dispatch CRM events.");
        return -2;
    }
    return 0;
}

int EventBridge::ApplyQuarantinePolicy(const CrmEventSource* source, uint32_t responseFlags,
                                       const std::list<BlockRule>& blockRules) {
    const uint32_t relevant =
        IsIcmp(source->GetProtocol()) ? kResponseQuarantineIcmp : kResponseQuarantineTraffic;
    if ((responseFlags & relevant) == 0) {
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
    uint32_t flags = blockRule->flags;
    log.Write(Log::kDebug, "Quarantine by rule: 0x%04x", flags);
    if ((flags & kBlockIntruderSubnet) != 0) {
        log.Write(
            3,
            "Don't know how to deal with quarantine-intruder-subnet. Treat it as quarantine-intruder-address.");
        flags |= kBlockIntruderAddress;
    }
    if ((flags & kBlockVictimSubnet) != 0) {
        log.Write(
            3,
            "Don't know how to deal with quarantine-victim-subnet. Treat it as quarantine-victim-address.");
        flags |= kBlockVictimAddress;
    }

    QuarantineRule rule;
    const int ipVersion = source->GetIpVersion();
    if (ipVersion != 4 && ipVersion != 6) {
        log.Write(Log::kError, "Unable to determine IP version: %d", ipVersion);
        return -1;
    }
    (void)rule.SetIpVersion(ipVersion);  // both versions are taken
    const bool haveAddress = SetAddresses(*source, flags, rule);
    const int protocol = source->GetProtocol();
    rule.SetProtocol(protocol);
    if (!SetProtocolFields(*source, flags, haveAddress, rule)) {
        // Deliberate: the flags are shown as the configuration gave them.
        if (IsIcmp(protocol)) {
            log.Write(Log::kDebug, "Ignoring invalid block rule (0x%04x) for ICMP event (%d).",
                      blockRule->flags, protocol);
        } else {
            log.Write(Log::kDebug, "Ignoring invalid block rule (0x%04x) for non-ICMP event (%d).",
                      blockRule->flags, protocol);
        }
        return 1;
    }
    if ((flags & kBlockIssue) != 0) {
        log.Write(Log::kDebug, "Ignoring issue ID blocking for Snort event.");
    }
    rule.SetCounter(blockRule->rateLimit);

    uint64_t duration = blockRule->duration;
    if (duration == 0) {
        log.Write(Log::kInfo, "Block duration is not assigned. Use default value (3600) instead.");
        duration = kDefaultBlockSeconds;
    }
    // Deliberate: counted from the time of the event, so a late event's rule is already shorter. A
    // time that the rule does not take is found out when the text is made.
    (void)rule.SetExpiration(static_cast<time_t>(source->GetStartTime() + duration));

    std::string text;
    if (rule.ToString(text) != 0) {
        log.Write(Log::kError, "Fail to construct quarantine rule string.");
        return -1;
    }
    if (m_dbtComm.AddQuarantineRules(kQuarantineFlags, text.c_str(), source->GetIssueId(), 0) !=
        0) {
        log.Write(Log::kError, "Fail to add quarantine rule %s.", text.c_str());
        return -1;
    }
    return 0;
}
