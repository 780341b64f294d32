#include "tarnctl/import/line_edit.h"

#include <algorithm>

namespace tarnctl {
namespace {

constexpr size_t kContext = 3;

struct Change {
    char sign;  // ' ', '-' or '+'
    std::string_view line;
};

std::vector<std::string_view> LinesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size() - 1);
        lines.push_back(text.substr(0, end + 1));
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::string Range(size_t begin, size_t count) {
    // An empty range is named by the line in front of it.
    const size_t first = count == 0 ? begin : begin + 1;
    return std::to_string(first) + (count == 1 ? "" : "," + std::to_string(count));
}

void Print(const Change& change, std::string& text) {
    text += change.sign;
    text += change.line;
    if (!change.line.ends_with('\n')) {
        text += "\n\\ No newline at end of file\n";
    }
}

// One past the last line of the hunk that begins with the change at `at`.
size_t HunkEnd(const std::vector<Change>& changes, size_t at) {
    size_t end = at;
    for (size_t next = at; next < changes.size() && next <= end + 2 * kContext + 1; ++next) {
        end = changes[next].sign != ' ' ? next : end;
    }
    return std::min(end + 1 + kContext, changes.size());
}

}  // namespace

bool LineEdit::ChangesNothing() const {
    return added.empty() && std::find(remove.begin(), remove.end(), true) == remove.end();
}

std::string LineEdit::Apply() const {
    std::string text;
    for (size_t at = 0; at < lines.size(); ++at) {
        if (!remove[at]) {
            text += lines[at];
        }
    }
    if (!added.empty() && !text.empty() && text.back() != '\n') {
        text += '\n';
    }
    return text + added;
}

std::string LineEdit::Diff(const std::string& oldName, const std::string& newName) const {
    if (ChangesNothing()) {
        return "";
    }
    std::vector<Change> changes;
    std::string ended;  // the last line with the line end that it gets
    for (size_t at = 0; at < lines.size(); ++at) {
        const bool getsEnd = !added.empty() && !remove[at] && !lines[at].ends_with('\n');
        changes.push_back({remove[at] || getsEnd ? '-' : ' ', lines[at]});
        if (getsEnd) {
            ended = std::string(lines[at]) + "\n";
            changes.push_back({'+', ended});
        }
    }
    for (const std::string_view line : LinesOf(added)) {
        changes.push_back({'+', line});
    }

    std::string text = "--- " + oldName + "\n+++ " + newName + "\n";
    size_t oldLine = 0;
    size_t newLine = 0;
    size_t at = 0;
    const auto pass = [&](size_t end) {
        for (; at < end; ++at) {
            oldLine += changes[at].sign != '+' ? 1 : 0;
            newLine += changes[at].sign != '-' ? 1 : 0;
        }
    };
    for (size_t first = 0; first < changes.size(); ++first) {
        if (first < at || changes[first].sign == ' ') {
            continue;
        }
        pass(std::max(at, first - std::min(first, kContext)));
        const size_t begin = at;
        const size_t oldBegin = oldLine;
        const size_t newBegin = newLine;
        pass(HunkEnd(changes, first));
        text += "@@ -" + Range(oldBegin, oldLine - oldBegin) + " +" +
                Range(newBegin, newLine - newBegin) + " @@\n";
        for (size_t each = begin; each < at; ++each) {
            Print(changes[each], text);
        }
    }
    return text;
}

}  // namespace tarnctl
