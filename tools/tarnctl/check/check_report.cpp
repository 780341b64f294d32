#include "tarnctl/check/check_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>
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

// `room` is the columns for all of it; 0 is no limit, but for what is far from the mark.
Excerpt ExcerptOf(const FindingPlace& place, size_t room) {
    constexpr size_t kAround = 100;  // bytes on both sides of the mark, and of the mark
    constexpr std::string_view kMore = "...";
    const std::string& text = place.text;
    const size_t at = std::min(place.column - 1, text.size());
    size_t marked = std::min({place.length, kAround, text.size() - at});
    size_t before = std::min(at, kAround);
    size_t after = std::min(text.size() - at - marked, kAround);
    if (room != 0 && text.size() > room) {
        const size_t shown = room > 2 * kMore.size() + 2 ? room - 2 * kMore.size() : 2;
        marked = std::min(marked, shown);
        const size_t rest = shown - marked;
        before = std::min(before, std::max(rest / 2, rest - std::min(rest, after)));
        after = std::min(after, rest - before);
    }
    const size_t begin = at - before;
    const size_t end = at + marked;
    const size_t last = end + after;
    return {(begin > 0 ? std::string(kMore) : "") + ForTerminal(text.substr(begin, before)),
            ForTerminal(text.substr(at, marked)),
            ForTerminal(text.substr(end, after)) + (last < text.size() ? std::string(kMore) : "")};
}

void WriteExcerpt(const FindingPlace& place, const Display& display, Color color,
                  std::ostream& out) {
    const std::string number = std::to_string(place.line);
    const std::string margin = "  " + std::string(number.size(), ' ') + " | ";
    const size_t width = display.Width();
    const size_t room = width == 0 ? 0 : width - std::min(width - 1, margin.size());
    const Excerpt excerpt = ExcerptOf(place, room);
    const size_t underlined = std::max<size_t>(excerpt.marked.size(), 1);
    const std::string mark = "^" + std::string(underlined - 1, '~');
    out << CutToWidth("  " + number + " | " + excerpt.before +
                          Painted(excerpt.marked, color, display.color) + excerpt.after,
                      width)
        << "\n"
        << CutToWidth(margin + std::string(excerpt.before.size(), ' ') +
                          Painted(mark, color, display.color),
                      width)
        << "\n";
}

void WriteFinding(const Finding& finding, const Display& display, std::ostream& out) {
    constexpr size_t kIndent = 4;
    const bool isError = finding.kind->level == FindingLevel::kError;
    const Color color = isError ? Color::kRed : Color::kYellow;
    const size_t width = display.Width();
    out << FoldedToWidth(PlaceText(finding.place) + ": " +
                             Painted(LevelWord(finding.kind->level), color, display.color) + ": " +
                             ForTerminal(finding.reason) + " [" + finding.kind->name + "]",
                         width, kIndent);
    if (finding.place.line != 0) {
        WriteExcerpt(finding.place, display, color, out);
    }
    if (!finding.suggestion.empty()) {
        out << FoldedToWidth("  suggestion: " + ForTerminal(finding.suggestion), width, kIndent);
    }
    if (!finding.inForce.empty()) {
        out << FoldedToWidth("  in force: " + ForTerminal(finding.inForce), width, kIndent);
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

size_t CheckResult::Count(FindingLevel level) const {
    return static_cast<size_t>(
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

void WriteFindings(const CheckResult& result, const Display& display, std::ostream& out) {
    for (const Finding& finding : result.findings) {
        WriteFinding(finding, display, out);
    }
    out << FoldedToWidth(
        Counted(result.Count(FindingLevel::kError), "error") + ", " +
            Counted(result.Count(FindingLevel::kWarning), "warning") + " in " +
            Counted(result.lines, "setting") + " and " +
            (result.entries.size() == 1 ? "1 entry"
                                        : std::to_string(result.entries.size()) + " entries"),
        display.Width(), 0);
}

void WriteSummary(const CheckResult& result, const Display& display, std::ostream& out) {
    constexpr size_t kIndent = 4;
    for (const LoadedEntry& entry : result.entries) {
        const bool withRaw = (entry.userResponseFlags & kUserResponseWithRaw) != 0;
        std::string line = std::to_string(entry.id) + ": reports \"" + ForTerminal(entry.name) +
                           "\" as " + SeverityWord(entry.severity) +
                           (withRaw ? " with its packet" : "");
        const std::vector<std::string> blocks = BlocksOf(entry);
        for (const std::string& text : blocks) {
            line += "; " + text;
        }
        line += blocks.empty() ? "; blocks nothing" : "";
        line += (entry.userResponseFlags & kUserResponseLogPackets) != 0 ? "; takes packets"
                                                                         : "; takes no packets";
        out << FoldedToWidth(line + "\n", display.Width(), kIndent);
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
