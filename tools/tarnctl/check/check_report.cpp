#include "tarnctl/check/check_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <tuple>

#include "tarnctl/check/block_words.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

const char* LevelWord(FindingLevel level) {
    return level == FindingLevel::kError ? "error" : "warning";
}

const char* SeverityWord(uint32_t severity) {
    constexpr const char* kWords[] = {"low", "low", "medium", "high"};
    return kWords[severity <= kSeverityHigh ? severity : 0];
}

std::string PlaceText(const FindingPlace& place) {
    std::string text = ForTerminal(place.file);
    if (place.line != 0) {
        text += ":" + std::to_string(place.line) + ":" + std::to_string(place.column);
    }
    return text;
}

// The part of a line that is shown: all of it, or what is around the mark.
struct Excerpt {
    std::string before;
    std::string marked;
    std::string after;
};

Excerpt ExcerptOf(const FindingPlace& place) {
    constexpr std::size_t kAround = 100;  // bytes on both sides of the mark
    const std::size_t at = std::min(place.column - 1, place.text.size());
    const std::size_t end = std::min(at + std::min(place.length, kAround), place.text.size());
    const std::size_t begin = at > kAround ? at - kAround : 0;
    const std::size_t last = std::min(end + kAround, place.text.size());
    return {
        (begin > 0 ? "..." : "") + ForTerminal(place.text.substr(begin, at - begin)),
        ForTerminal(place.text.substr(at, end - at)),
        ForTerminal(place.text.substr(end, last - end)) + (last < place.text.size() ? "..." : "")};
}

void WriteFinding(const Finding& finding, bool isColored, std::ostream& out) {
    const bool isError = finding.kind->level == FindingLevel::kError;
    const char* const begin = !isColored ? "" : isError ? "\033[1;31m" : "\033[1;33m";
    const char* const end = isColored ? "\033[0m" : "";
    out << PlaceText(finding.place) << ": " << begin << LevelWord(finding.kind->level) << end
        << ": " << ForTerminal(finding.reason) << " [" << finding.kind->name << "]\n";
    if (finding.place.line != 0) {
        const Excerpt excerpt = ExcerptOf(finding.place);
        const std::string number = std::to_string(finding.place.line);
        const std::string margin(number.size(), ' ');
        out << "  " << number << " | " << excerpt.before << begin << excerpt.marked << end
            << excerpt.after << "\n  " << margin << " | " << std::string(excerpt.before.size(), ' ')
            << begin << "^"
            << std::string(excerpt.marked.empty() ? 0 : excerpt.marked.size() - 1, '~') << end
            << "\n";
    }
    if (!finding.suggestion.empty()) {
        out << "  suggestion: " << ForTerminal(finding.suggestion) << "\n";
    }
    if (!finding.inForce.empty()) {
        out << "  in force: " << ForTerminal(finding.inForce) << "\n";
    }
}

Json OrNull(const std::string& text) {
    return text.empty() ? Json() : TextAsJson(text);
}

Json FindingAsJson(const Finding& finding) {
    const FindingPlace& place = finding.place;
    const bool hasLine = place.line != 0;
    return {{"name", finding.kind->name},
            {"level", LevelWord(finding.kind->level)},
            {"file", TextAsJson(place.file)},
            {"line", hasLine ? Json(place.line) : Json()},
            {"column", hasLine ? Json(place.column) : Json()},
            {"length", hasLine ? Json(place.length) : Json()},
            {"text", hasLine ? TextAsJson(place.text) : Json()},
            {"reason", TextAsJson(finding.reason)},
            {"suggestion", OrNull(finding.suggestion)},
            {"inForce", OrNull(finding.inForce)}};
}

// What comes of the block rules of an entry, one text for each that applies to something.
std::vector<std::string> BlocksOf(const LoadedEntry& entry) {
    std::vector<std::string> texts;
    for (const LoadedRule& rule : entry.rules) {
        const Applies applies = AppliesTo(rule.rule.flags);
        if (entry.responseFlags != 0 && (applies.toIcmp || applies.toOthers)) {
            texts.push_back(BlockRuleInPlainWords(rule.rule));
        }
    }
    return texts;
}

Json EntryAsJson(const LoadedEntry& entry) {
    const bool withRaw = (entry.userResponseFlags & kUserResponseWithRaw) != 0;
    const bool logsPackets = (entry.userResponseFlags & kUserResponseLogPackets) != 0;
    Json blocks = Json::array();
    for (const std::string& text : BlocksOf(entry)) {
        blocks.push_back(text);
    }
    return {{"id", entry.id},
            {"file", TextAsJson(entry.place.file)},
            {"line", entry.place.line},
            {"name", TextAsJson(entry.name)},
            {"severity", SeverityWord(entry.severity)},
            {"sendsPacket", withRaw},
            {"logsPackets", logsPackets},
            {"blocks", std::move(blocks)}};
}

}  // namespace

std::size_t CheckResult::Count(FindingLevel level) const {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [level](const Finding& finding) { return finding.kind->level == level; }));
}

void SortFindings(CheckResult& result) {
    const auto rank = [&result](const std::string& file) {
        return std::find(result.files.begin(), result.files.end(), file) - result.files.begin();
    };
    std::stable_sort(
        result.findings.begin(), result.findings.end(),
        [&rank](const Finding& left, const Finding& right) {
            return std::tuple(rank(left.place.file), left.place.line, left.place.column) <
                   std::tuple(rank(right.place.file), right.place.line, right.place.column);
        });
}

void WriteFindings(const CheckResult& result, bool isColored, std::ostream& out) {
    for (const Finding& finding : result.findings) {
        WriteFinding(finding, isColored, out);
    }
    out << Counted(result.Count(FindingLevel::kError), "error") << ", "
        << Counted(result.Count(FindingLevel::kWarning), "warning") << " in "
        << Counted(result.lines, "setting") << " and "
        << (result.entries.size() == 1 ? "1 entry"
                                       : std::to_string(result.entries.size()) + " entries")
        << "\n";
}

void WriteSummary(const CheckResult& result, std::ostream& out) {
    for (const LoadedEntry& entry : result.entries) {
        const bool withRaw = (entry.userResponseFlags & kUserResponseWithRaw) != 0;
        out << entry.id << ": reports \"" << ForTerminal(entry.name) << "\" as "
            << SeverityWord(entry.severity) << (withRaw ? " with its packet" : "");
        const std::vector<std::string> blocks = BlocksOf(entry);
        for (const std::string& text : blocks) {
            out << "; " << text;
        }
        out << (blocks.empty() ? "; blocks nothing" : "")
            << ((entry.userResponseFlags & kUserResponseLogPackets) != 0 ? "; takes packets"
                                                                         : "; takes no packets")
            << "\n";
    }
}

void WriteJson(const CheckResult& result, bool withEntries, std::ostream& out) {
    Json findings = Json::array();
    for (const Finding& finding : result.findings) {
        findings.push_back(FindingAsJson(finding));
    }
    Json files = Json::array();
    for (const std::string& file : result.files) {
        files.push_back(TextAsJson(file));
    }
    Json whole = {{"files", std::move(files)},
                  {"settings", result.lines},
                  {"entryCount", result.entries.size()},
                  {"errors", result.Count(FindingLevel::kError)},
                  {"warnings", result.Count(FindingLevel::kWarning)},
                  {"findings", std::move(findings)}};
    if (withEntries) {
        Json entries = Json::array();
        for (const LoadedEntry& entry : result.entries) {
            entries.push_back(EntryAsJson(entry));
        }
        whole["entries"] = std::move(entries);
    }
    out << whole.dump() << "\n";
}

}  // namespace tarnctl
