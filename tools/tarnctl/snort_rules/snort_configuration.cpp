#include "tarnctl/snort_rules/snort_configuration.h"

#include <algorithm>
#include <filesystem>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/snort_rules/rule_cursor.h"
#include "tarnctl/snort_rules/text_file.h"
#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

bool IsSnort3(const std::string& name) {
    return name.ends_with("snort.lua");
}

bool IsConfiguration(const std::string& name) {
    return name.ends_with("snort.conf") || IsSnort3(name);
}

// The items of "unified2: filename x, limit 128, nostamp", each with its first word only.
std::vector<std::string_view> WordsOfItems(std::string_view list) {
    std::vector<std::string_view> words;
    while (!list.empty()) {
        const size_t end = std::min(list.find(','), list.size());
        const std::string_view item = Trimmed(list.substr(0, end));
        words.push_back(item.substr(0, item.find_first_of(" \t")));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return words;
}

struct OutputLine {
    std::string writer;
    std::string options;
    uint32_t line = 0;
};

std::vector<OutputLine> OutputLinesOf(std::string_view text) {
    std::vector<OutputLine> outputs;
    RuleCursor cursor(text);
    while (!cursor.AtEnd()) {
        cursor.SkipBlanks();
        if (cursor.At('#')) {
            cursor.SkipLine();
            continue;
        }
        const uint32_t line = cursor.Line();
        const bool isOutput = cursor.Word() == "output";
        const std::string whole = cursor.TakeLogicalLine();
        if (isOutput) {
            const std::string_view rest = Trimmed(std::string_view(whole).substr(6));
            const size_t colon = std::min(rest.find(':'), rest.size());
            outputs.push_back({std::string(Trimmed(rest.substr(0, colon))),
                               std::string(rest.substr(std::min(colon + 1, rest.size()))), line});
        }
    }
    return outputs;
}

void JudgeUnified2(const std::string& name, const OutputLine& output,
                   std::vector<SensorOutputFinding>& findings) {
    const std::vector<std::string_view> words = WordsOfItems(output.options);
    const auto has = [&words](std::string_view word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    const auto find = [&](SensorOutputFault fault, std::string text) {
        findings.push_back({fault, name, output.line, std::move(text)});
    };
    if (has("appid_event_types")) {
        find(SensorOutputFault::kForeignRecords,
             "appid_event_types makes alert records of types 111 and 112, which tarn does not "
             "take; remove it");
    } else if (!has("vlan_event_types")) {
        find(SensorOutputFault::kForeignRecords,
             "without vlan_event_types the alerts are records of types 7 and 72, which tarn does "
             "not take; add vlan_event_types");
    }
    if (!has("nostamp")) {
        find(SensorOutputFault::kStampedName,
             "without nostamp the time is added to the file's name, so the records never reach "
             "the alert FIFO; add nostamp");
    }
}

}  // namespace

std::vector<std::string> SensorConfigurationsNear(const std::string& path) {
    std::error_code ignored;
    const fs::path place = fs::absolute(path, ignored).lexically_normal();
    if (IsConfiguration(path)) {
        return {path};
    }
    std::vector<std::string> found;
    const fs::path folder =
        fs::is_directory(place, ignored) && place.has_filename() ? place : place.parent_path();
    for (const fs::path& each : {folder, folder.parent_path()}) {
        const size_t begin = found.size();
        for (fs::directory_iterator entry(each, ignored), end; !ignored && entry != end;
             entry.increment(ignored)) {
            if (IsConfiguration(entry->path().filename().string())) {
                found.push_back(entry->path().string());
            }
        }
        std::sort(found.begin() + static_cast<ptrdiff_t>(begin), found.end());
        if (each == each.parent_path()) {
            break;
        }
    }
    return found;
}

std::vector<SensorOutputFinding> ScanSensorConfiguration(const std::string& path) {
    std::string text;
    const int error = ReadTextFile(path, text);
    if (error != 0) {
        return {{SensorOutputFault::kUnreadable, path, 0, FailureText(path, error)}};
    }
    return IsSnort3(path) ? ScanSnort3Configuration(path, text)
                          : ScanSnort2Configuration(path, text);
}

std::vector<SensorOutputFinding> ScanSnort2Configuration(const std::string& name,
                                                         std::string_view text) {
    std::vector<SensorOutputFinding> findings;
    const std::vector<OutputLine> outputs = OutputLinesOf(text);
    bool writesAlerts = false;
    for (const OutputLine& output : outputs) {
        if (output.writer == "unified2" || output.writer == "alert_unified2") {
            writesAlerts = true;
            JudgeUnified2(name, output, findings);
        }
    }
    if (!writesAlerts) {
        const std::string first = outputs.empty() ? "" : outputs.front().writer;
        findings.push_back(
            {SensorOutputFault::kNoRecordWriter, name, outputs.empty() ? 0 : outputs.front().line,
             (first.empty() ? std::string("no output is named here")
                            : "\"output " + first + "\" writes no unified2 alerts") +
                 "; unless the command line or an included file does it, add \"output unified2: "
                 "filename NAME, nostamp, vlan_event_types\""});
    }
    return findings;
}

}  // namespace tarnctl
