#include "tarnctl/import/import_report.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tarnctl/common/display.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

// More lines than these of one kind are counted and not shown.
constexpr size_t kMostShown = 10;

void AddSome(const std::vector<std::string>& lines, std::vector<std::string>& shown) {
    const size_t count = lines.size() > kMostShown + 1 ? kMostShown : lines.size();
    shown.insert(shown.end(), lines.begin(), lines.begin() + static_cast<ptrdiff_t>(count));
    if (count < lines.size()) {
        shown.push_back("and " + std::to_string(lines.size() - count) + " more like these");
    }
}

std::string SharedText(const SharedSignature& shared) {
    std::string text = "signature ";
    text.append(std::to_string(shared.id)).append(" is used by generators ");
    for (size_t i = 0; i < shared.generators.size(); ++i) {
        text.append(i == 0 ? "" : ", ").append(std::to_string(shared.generators[i]));
    }
    return text + ", which share one entry";
}

const char* KindWord(RuleRemarkKind kind) {
    switch (kind) {
        case RuleRemarkKind::kUnreadable:
            return "unreadable";
        case RuleRemarkKind::kNoSid:
            return "no-sid";
        case RuleRemarkKind::kBadNumber:
            return "bad-number";
        case RuleRemarkKind::kUnfinished:
            return "unfinished";
        case RuleRemarkKind::kNotFollowed:
            return "not-followed";
        case RuleRemarkKind::kBadMapLine:
            return "bad-map-line";
    }
    return "";
}

Json EntryAsJson(const EventEntry& entry) {
    return {{"id", entry.id},
            {"generators", entry.generators},
            {"name", TextAsJson(entry.name)},
            {"severity", entry.severity},
            {"file", TextAsJson(entry.file)},
            {"line", entry.line}};
}

Json RemarkAsJson(const ImportRemark& remark) {
    return {{"kind", KindWord(remark.kind)},
            {"file", TextAsJson(remark.file)},
            {"line", remark.line == 0 ? Json() : Json(remark.line)},
            {"text", TextAsJson(remark.text)}};
}

}  // namespace

std::vector<std::string> RemarkLines(const ImportResult& result) {
    std::map<RuleRemarkKind, std::vector<std::string>> remarks;
    for (const ImportRemark& remark : result.remarks) {
        const bool isWhole = remark.kind == RuleRemarkKind::kUnreadable;  // names its file
        const std::string place =
            isWhole ? "" : ForTerminal(remark.file) + ":" + std::to_string(remark.line) + ": ";
        remarks[remark.kind].push_back(place + ForTerminal(remark.text));
    }
    std::vector<std::string> shown;
    for (const auto& [kind, lines] : remarks) {
        AddSome(lines, shown);
    }
    std::vector<std::string> shared;
    for (const SharedSignature& signature : result.shared) {
        shared.push_back(SharedText(signature));
    }
    AddSome(shared, shown);
    return shown;
}

std::string SummaryLine(const ImportResult& result) {
    const size_t added = result.added.size();
    return result.file + ": " + std::to_string(added) + (added == 1 ? " entry" : " entries") +
           (result.isDryRun ? " would be" : "") + " added, " +
           std::to_string(result.removed.size()) + " removed, " + std::to_string(result.kept) +
           " kept";
}

std::string PaintedDiff(const std::string& diff, bool isColored) {
    if (!isColored) {
        return diff;
    }
    std::string painted;
    std::string_view rest = diff;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size() - 1);
        const std::string_view line = rest.substr(0, end);
        const bool isName = line.starts_with("--- ") || line.starts_with("+++ ");
        const Color color = isName                  ? Color::kBold
                            : line.starts_with('+') ? Color::kGreen
                            : line.starts_with('-') ? Color::kRed
                            : line.starts_with('@') ? Color::kBlue
                                                    : Color::kNone;
        painted += Painted(line, color, true) + "\n";
        rest.remove_prefix(end + 1);
    }
    return painted;
}

std::string ImportAsJson(const ImportResult& result) {
    Json added = Json::array();
    for (const EventEntry& entry : result.added) {
        added.push_back(EntryAsJson(entry));
    }
    Json shared = Json::array();
    for (const SharedSignature& signature : result.shared) {
        shared.push_back({{"id", signature.id}, {"generators", signature.generators}});
    }
    Json remarks = Json::array();
    for (const ImportRemark& remark : result.remarks) {
        remarks.push_back(RemarkAsJson(remark));
    }
    return Json({{"file", TextAsJson(result.file)},
                 {"dryRun", result.isDryRun},
                 {"written", result.isWritten},
                 {"complete", result.isComplete},
                 {"added", std::move(added)},
                 {"removed", result.removed},
                 {"kept", result.kept},
                 {"shared", std::move(shared)},
                 {"remarks", std::move(remarks)},
                 {"diff", result.isDryRun ? TextAsJson(result.diff) : Json()},
                 {"error", result.error.empty() ? Json() : TextAsJson(result.error)}})
        .dump();
}

}  // namespace tarnctl
