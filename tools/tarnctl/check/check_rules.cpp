#include "tarnctl/check/check_rules.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/snort_rules/rule_set.h"
#include "tarnctl/snort_rules/snort_configuration.h"
#include "tarnctl/snort_rules/text_file.h"

namespace tarnctl {
namespace {

FindingPlace PlaceOf(const std::string& file, uint32_t line, const std::string& text) {
    FindingPlace place;
    place.file = file;
    place.line = line;
    place.column = 1;
    place.length = std::max<size_t>(text.size(), 1);
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

// The configurations of the sensor beside the paths, each once: two paths may name one by two
// names.
std::vector<std::string> ConfigurationsBeside(const std::vector<std::string>& paths) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (const std::string& path : paths) {
        if (path == "-") {
            continue;
        }
        for (std::string& name : SensorConfigurationsNear(path)) {
            std::error_code ignored;
            if (seen.insert(std::filesystem::weakly_canonical(name, ignored).string()).second) {
                names.push_back(std::move(name));
            }
        }
    }
    return names;
}

// The text of one line, which counts from 1; empty where there is none.
std::string LineOf(std::string_view text, uint32_t number) {
    for (; number > 1 && !text.empty(); --number) {
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    }
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

void CheckSensor(const std::vector<std::string>& paths, Findings& findings,
                 std::vector<std::string>& faults) {
    for (const std::string& name : ConfigurationsBeside(paths)) {
        std::string text;
        (void)ReadTextFile(name, text);  // the scan says why it cannot be read
        for (const SensorOutputFinding& fault : ScanSensorConfiguration(name)) {
            if (fault.fault == SensorOutputFault::kUnclear) {
                continue;  // nothing can be said, so nothing is
            }
            if (fault.fault == SensorOutputFault::kUnreadable) {
                faults.push_back(fault.text);
                continue;
            }
            FindingPlace place;
            place.file = fault.file;
            if (fault.line != 0) {
                place = PlaceOf(fault.file, fault.line, LineOf(text, fault.line));
                const size_t begin = place.text.find_first_not_of(" \t");
                if (begin != std::string::npos) {
                    place.column = begin + 1;
                    place.length = place.text.size() - begin;
                }
            }
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
    CheckSensor(paths, findings, faults);
    return faults;
}

}  // namespace tarnctl
