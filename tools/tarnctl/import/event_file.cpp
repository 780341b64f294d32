#include "tarnctl/import/event_file.h"

#include <algorithm>
#include <utility>

#include "config/config.h"
#include "config/event_rule_parser.h"
#include "config/event_rule_table.h"
#include "tarnctl/common/daemon_load.h"

namespace tarnctl {
namespace {

constexpr std::string_view kBlanks = " \t";

bool IsEmpty(std::string_view line) {
    return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// The signature that a line sets something of, 0 if it is no setting.
uint32_t IdOf(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.front() == '#') {
        return 0;
    }
    int kind = kEventKeyNone;
    uint32_t id = 0;
    const std::string name(line.substr(0, equals));
    return ParseEventKey(name.c_str(), &kind, &id) && kind != kEventKeyNone ? id : 0;
}

}  // namespace

EventFile::EventFile(std::string text) : m_text(std::move(text)) {
    const DaemonLoad load;
    EventRuleTable& table = Config::s_eventTable;
    std::string line;
    uint32_t pending = 0;
    for (std::string_view rest = m_text; !rest.empty(); rest.remove_prefix(m_lines.back().size())) {
        const size_t end = rest.find('\n');
        m_lines.push_back(rest.substr(0, end == std::string_view::npos ? end : end + 1));
        line = rest.substr(0, end);
        Config::ParseLine(line, Config::kEventFile);
        m_ids.push_back(IdOf(line));
        // What is pending comes into force, or is a second block of an id that is in force. The
        // table is kept empty, since the search for a place in it is most of the work of a load.
        if (table.PendingId() != pending) {
            table.ClearBucket(pending);
            pending = table.PendingId();
            m_entries.insert(pending);
        }
    }
    m_entries.erase(0);
    (void)table.Commit();
    table.Clear();
}

std::vector<bool> EventFile::LinesToRemove(const std::set<uint32_t>& wanted) const {
    std::vector<bool> remove(m_lines.size(), false);
    for (size_t at = 0; at < m_lines.size(); ++at) {
        if (m_ids[at] == 0 || wanted.contains(m_ids[at])) {
            continue;
        }
        remove[at] = true;
        size_t first = at;
        while (first > 0 && !remove[first - 1] && m_lines[first - 1].starts_with(kImportComment)) {
            remove[--first] = true;
        }
    }
    for (size_t at = 1; at < m_lines.size(); ++at) {
        const bool begins = remove[at] && !remove[at - 1];
        if (!begins || !IsEmpty(m_lines[at - 1])) {
            continue;
        }
        const auto end =
            std::find(remove.begin() + static_cast<ptrdiff_t>(at), remove.end(), false);
        remove[at - 1] =
            end == remove.end() || IsEmpty(m_lines[static_cast<size_t>(end - remove.begin())]);
    }
    return remove;
}

}  // namespace tarnctl
