#include "tarnctl/check/check_rules.h"

#include <algorithm>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/snort_rules/rule_set.h"
#include "tarnctl/snort_rules/snort_configuration.h"

namespace tarnctl {
namespace {

FindingPlace PlaceOf(const std::string& file, uint32_t line, const std::string& text) {
    FindingPlace place;
    place.file = file;
    place.line = line;
    place.column = 1;
    place.length = std::max<std::size_t>(text.size(), 1);
    place.text = text;
    return place;
}

std::string NameOf(const SnortRule& rule) {
    return std::to_string(rule.generator) + ":" + std::to_string(rule.sid) +
           (rule.message.empty() ? "" : " \"" + rule.message + "\"");
}

void CompareSignatures(const RuleSet& set, const std::vector<LoadedEntry>& entries,
                       Findings& findings) {
    std::unordered_set<uint32_t> known;
    for (const LoadedEntry& entry : entries) {
        known.insert(entry.id);
    }
    std::unordered_set<uint32_t> named;                       // by any rule, disabled ones too
    std::unordered_map<uint32_t, const SnortRule*> alerting;  // the first that may alert
    const std::vector<SnortRule> signatures = set.Signatures();
    for (const SnortRule& rule : signatures) {
        named.insert(rule.sid);
        if (!rule.MayAlert()) {
            continue;
        }
        const auto [former, isFirst] = alerting.try_emplace(rule.sid, &rule);
        const FindingPlace place = PlaceOf(set.FileOf(rule), rule.line, NameOf(rule));
        if (!isFirst) {
            findings.push_back({&kinds::kIdUnderTwoGenerators, place,
                                "the id is also that of " + NameOf(*former->second) +
                                    ": an entry is found by the id alone, so both share it",
                                "", ""});
        } else if (!known.contains(rule.sid)) {
            findings.push_back({&kinds::kRuleWithoutEntry, place,
                                "the signature has no entry: its first alert ends the daemon",
                                "tarnctl import", ""});
        }
    }
    for (const LoadedEntry& entry : entries) {
        if (!named.contains(entry.id)) {
            findings.push_back({&kinds::kEntryWithoutRule, entry.place,
                                "no rule has the id " + std::to_string(entry.id), "", ""});
        }
    }
}

void CheckSensor(const std::vector<std::string>& paths, Findings& findings) {
    std::set<std::string> configurations;
    for (const std::string& path : paths) {
        for (const std::string& name : SensorConfigurationsNear(path)) {
            configurations.insert(name);
        }
    }
    for (const std::string& name : configurations) {
        for (const SensorOutputFinding& fault : ScanSensorConfiguration(name)) {
            if (fault.fault == SensorOutputFault::kUnclear) {
                continue;  // nothing can be said, so nothing is
            }
            FindingPlace place;
            place.file = fault.file;
            place.line = fault.line;
            place.column = place.length = fault.line != 0 ? 1 : 0;
            const bool isKind = fault.fault == SensorOutputFault::kForeignRecords;
            findings.push_back({isKind ? &kinds::kRecordKind : &kinds::kRecordWriter,
                                std::move(place), fault.text, "", ""});
        }
    }
}

}  // namespace

std::vector<std::string> CheckRules(const std::vector<std::string>& paths, StandardInput& input,
                                    const std::vector<LoadedEntry>& entries, Findings& findings) {
    RuleSet set;
    std::vector<std::string> faults;
    for (const std::string& path : paths) {
        (void)set.Read(path, input);  // what cannot be read has a remark
    }
    for (const RuleRemark& remark : set.Remarks()) {
        if (remark.kind == RuleRemarkKind::kUnreadable) {
            faults.push_back(remark.text);  // which names its file
        } else if (remark.kind == RuleRemarkKind::kNotFollowed) {
            faults.push_back(set.Files()[remark.file] + ":" + std::to_string(remark.line) + ": " +
                             remark.text);
        }
    }
    CompareSignatures(set, entries, findings);
    CheckSensor(paths, findings);
    return faults;
}

}  // namespace tarnctl
