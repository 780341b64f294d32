// The part of LoadWatch that is about entries as a whole: what only all lines of one show.

#include <algorithm>

#include "ring/event_queue.h"
#include "tarnctl/check/block_words.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/check/load_watch.h"
#include "tarnctl/check/watch_words.h"

namespace tarnctl {

void LoadWatch::OnEntryClosed(uint32_t id, bool entered) {
    if (m_entry.id != id) {
        return;  // a refused entry that is still pending has had its finding
    }
    if (!entered) {
        const FindingPlace& first = m_entries[m_entered[id]].place;
        const std::string& file = first.file;
        const uint32_t line = first.line;
        m_findings.push_back(
            {&kinds::kSecondBlock, m_entry.place,
             "the lines of " + EntryName(id) + " in " + file + ":" + std::to_string(line) +
                 " were closed by another id and win, so this block is dropped",
             "put all lines of one id together",
             EntryName(id) + " as " + file + ":" + std::to_string(line) + " gives it"});
    } else {
        CheckEntry(m_entry);
        m_entered.emplace(id, m_entries.size());
        m_entries.push_back(std::move(m_entry));
    }
    m_entry = LoadedEntry{};
    std::erase_if(m_excused, [id](const auto& excused) { return excused.first == id; });
}

void LoadWatch::CheckEntry(const LoadedEntry& entry) {
    const auto add = [&](const FindingKind& kind, std::string reason, std::string inForce) {
        m_findings.push_back({&kind, entry.place, std::move(reason), "", std::move(inForce)});
    };
    if (!entry.Has(kEventKeyMessage) && !IsExcused(entry.id, kEventKeyMessage)) {
        add(kinds::kEntryWithoutName, EntryName(entry.id) + " has no msg",
            "its reports have an empty name");
    }
    if (!entry.Has(kEventKeySeverity) && !IsExcused(entry.id, kEventKeySeverity)) {
        add(kinds::kEntryWithoutSeverity, EntryName(entry.id) + " has no severity",
            "its reports have the severity low");
    }
    // A report whose fixed parts and texts exceed the ring is refused, however empty the ring is.
    constexpr size_t kLargestPacket = 65536;
    constexpr size_t kRest = 4096;
    constexpr size_t kRoom = kEventQueueFirstRingSize - kLargestPacket - kRest;
    if (entry.name.size() + entry.userResponse.size() + entry.ruleText.size() > kRoom) {
        add(kinds::kTextTooLong,
            "name, user response and rule are together longer than the event queue takes",
            "its reports are never sent");
    }
    CheckRules(entry);
}

void LoadWatch::CheckRules(const LoadedEntry& entry) {
    const auto add = [&](const FindingKind& kind, const FindingPlace& place, std::string reason,
                         std::string inForce) {
        m_findings.push_back({&kind, place, std::move(reason), "", std::move(inForce)});
    };
    if (entry.rules.empty()) {
        if (entry.responseFlags != 0 && !IsExcused(entry.id, kEventKeyQuarantineRule)) {
            add(kinds::kResponseWithoutRules, entry.responsePlace,
                EntryName(entry.id) + " has a response and no quarantine.rule",
                "nothing is blocked");
        }
        return;
    }
    if (!entry.Has(kEventKeyResponse)) {
        if (!IsExcused(entry.id, kEventKeyResponse)) {
            add(kinds::kEntryWithoutResponse, entry.place,
                EntryName(entry.id) + " has a quarantine.rule and no response",
                "nothing is blocked");
        }
    } else if (entry.responseFlags == 0 &&
               entry.responsePlace.text.find("none") != std::string::npos) {
        add(kinds::kRulesSwitchedOff, entry.responsePlace,
            "the response is none, so no quarantine.rule of " + EntryName(entry.id) + " applies",
            "nothing is blocked");
    }
    for (const LoadedRule& rule : entry.rules) {
        const Applies applies = AppliesTo(rule.rule.flags);
        if (!applies.toIcmp && !applies.toOthers) {
            if (!rule.isEmpty && rule.isComplete) {
                add(kinds::kRuleNeverApplies, rule.place,
                    "the rule names no address, no port and no field of ICMP",
                    "it applies to no protocol");
            }
            continue;
        }
        if (rule.rule.duration == 0 && rule.isComplete) {
            const bool isGiven = rule.place.text.find("duration") != std::string::npos;
            add(isGiven ? kinds::kDurationZero : kinds::kDurationMissing, rule.place,
                isGiven ? "a duration of 0 counts as none" : "the rule has no duration",
                "it blocks for 3600 seconds");
        }
    }
}

}  // namespace tarnctl
