#include "tarnctl/check/block_words.h"

#include <netinet/in.h>

#include <array>
#include <utility>
#include <vector>

#include "crm/crm_event_source.h"
#include "events/policy_decision.h"
#include "tarnctl/common/counted.h"

namespace tarnctl {
namespace {

constexpr uint64_t kDefaultSeconds = 3600;  // where a rule has no duration

constexpr std::pair<uint32_t, const char*> kWords[] = {
    {kBlockIntruderAddress, "quarantine-intruder-address"},
    {kBlockIntruderPort, "quarantine-intruder-port"},
    {kBlockVictimAddress, "quarantine-victim-address"},
    {kBlockVictimPort, "quarantine-victim-port"},
    {kBlockIcmpType, "quarantine-icmp-type"},
    {kBlockIcmpCode, "quarantine-icmp-code"},
    {kBlockIntruderSubnet, "quarantine-intruder-subnet"},
    {kBlockVictimSubnet, "quarantine-victim-subnet"},
    {kBlockIssue, "quarantine-ddos"},
};

// A subnet is handled as its address.
uint32_t WithAddresses(uint32_t flags) {
    return flags | ((flags & kBlockIntruderSubnet) != 0 ? kBlockIntruderAddress : 0U) |
           ((flags & kBlockVictimSubnet) != 0 ? kBlockVictimAddress : 0U);
}

constexpr uint32_t kAllFlags = 0x1FF;

// What the daemon's own policy decides for an event that has every field.
bool FitsEventOf(unsigned short protocol, uint32_t blockFlags) {
    CrmEventSource event(4);
    event.SetProtocol(protocol);
    event.SetSourceIp(htonl(INADDR_LOOPBACK));
    event.SetDestinationIp(htonl(INADDR_LOOPBACK));
    event.SetEventTime(1);
    return tarn::policy::Applies(tarn::policy::DecideBlock(event, {blockFlags, 1, 0}).outcome);
}

std::string Joined(const std::vector<std::string>& parts, const char* last) {
    std::string text;
    for (size_t index = 0; index < parts.size(); ++index) {
        text += index == 0 ? "" : index + 1 == parts.size() ? last : ", ";
        text += parts[index];
    }
    return text;
}

}  // namespace

Applies AppliesTo(uint32_t blockFlags) {
    static const auto table = [] {
        std::array<Applies, kAllFlags + 1> answers = {};
        for (uint32_t flags = 0; flags <= kAllFlags; ++flags) {
            answers[flags] = {FitsEventOf(IPPROTO_ICMP, flags), FitsEventOf(IPPROTO_TCP, flags)};
        }
        return answers;
    }();
    return table[blockFlags & kAllFlags];
}

std::string BlockFlagsInWords(uint32_t blockFlags) {
    std::vector<std::string> words;
    for (const auto& [flag, word] : kWords) {
        // "quarantine-ddos" names the intruder's address as well.
        const bool isImplied = flag == kBlockIntruderAddress && (blockFlags & kBlockIssue) != 0;
        if ((blockFlags & flag) != 0 && !isImplied) {
            words.emplace_back(word);
        }
    }
    return words.empty() ? "no words" : Joined(words, ", ");
}

std::string BlockRuleInWords(const BlockRule& rule) {
    std::string text = BlockFlagsInWords(rule.flags);
    if (rule.duration != 0) {
        text += ", duration: " + std::to_string(rule.duration);
    }
    if (rule.rateLimit != 0) {
        text += ", ratelimit: " + std::to_string(rule.rateLimit);
    }
    return text;
}

std::string ResponseInWords(uint32_t responseFlags) {
    return responseFlags == 0 ? "nothing is blocked" : "quarantine rules apply to all traffic";
}

std::string UserResponseInWords(uint32_t userResponseFlags) {
    return std::string((userResponseFlags & kUserResponseWithRaw) != 0
                           ? "the packet goes with the report"
                           : "no packet goes with the report") +
           ((userResponseFlags & kUserResponseLogPackets) != 0 ? ", packets are logged"
                                                               : ", no packets are logged");
}

std::string BlockRuleInPlainWords(const BlockRule& rule) {
    const uint32_t flags = WithAddresses(rule.flags);
    const Applies applies = AppliesTo(flags);
    const bool isForBoth = applies.toIcmp && applies.toOthers;
    std::vector<std::string> parts;
    const auto name = [&](uint32_t flag, std::string words, const char* limit) {
        if ((flags & flag) != 0) {
            parts.push_back(std::move(words) + (isForBoth ? limit : ""));
        }
    };
    name(kBlockIntruderAddress, "the intruder's address", "");
    name(kBlockVictimAddress, "the victim's address", "");
    name(kBlockIntruderPort, "the intruder's port", " (not for ICMP)");
    name(kBlockVictimPort, "the victim's port", " (not for ICMP)");
    name(kBlockIcmpType, "the ICMP type", " (ICMP only)");
    name(kBlockIcmpCode, "the ICMP code", " (ICMP only)");
    std::string text = "blocks traffic by " + Joined(parts, " and ") + " for " +
                       DurationInWords(rule.duration != 0 ? rule.duration : kDefaultSeconds);
    if (rule.rateLimit != 0) {
        text += ", above " + Counted(rule.rateLimit, "byte") + " a second";
    }
    if (!isForBoth) {
        text += applies.toIcmp ? ", if the event is ICMP" : ", if the event is not ICMP";
    }
    return text;
}

std::string DurationInWords(uint64_t seconds) {
    constexpr std::pair<uint64_t, const char*> kUnits[] = {
        {86400, "day"}, {3600, "hour"}, {60, "minute"}};
    for (const auto& [length, unit] : kUnits) {
        if (seconds >= length && seconds % length == 0) {
            return Counted(seconds / length, unit);
        }
    }
    return Counted(seconds, "second");
}

std::string SecondsFor(const ListTrace::Entry& entry, const std::string& unit) {
    constexpr std::pair<const char*, uint64_t> kUnits[] = {
        {"s", 1}, {"sec", 1}, {"m", 60}, {"min", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}};
    for (const auto& [name, length] : kUnits) {
        if (unit == name && entry.item == ListTrace::Item::kDuration && entry.number <= 1000000) {
            return "duration: " + std::to_string(entry.number * length);
        }
    }
    return "";
}

}  // namespace tarnctl
