#include "tarnctl/explain/loaded_entries.h"

#include <cerrno>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "tarnctl/common/daemon_load.h"
#include "tarnctl/common/read_error.h"
#include "tarnctl/common/standard_input.h"

namespace tarnctl {

std::string LoadedEntries::Load(const ConfigPaths& paths, StandardInput& input) {
    m_paths = paths;
    m_fault.clear();
    m_blocks.clear();
    m_openId = 0;
    const std::string state = input.PathOf(paths.state);
    const std::string config = input.PathOf(paths.config);
    const std::string events = input.PathOf(paths.events);
    if (state.empty() || config.empty() || events.empty()) {
        return "standard input cannot be read";
    }
    const DaemonLoad load(this);
    Config::s_stateFile = state;
    Config::Load(config.c_str(), Config::kMainFile);
    Config::Load(events.c_str(), Config::kEventFile);
    return m_fault;
}

std::shared_ptr<Node> LoadedEntries::Find(uint32_t id) {
    return Config::s_eventTable.Find(id);
}

const std::vector<EntryBlock>& LoadedEntries::Blocks(uint32_t id) const {
    static const std::vector<EntryBlock> kNone;
    const auto found = m_blocks.find(id);
    return found == m_blocks.end() ? kNone : found->second;
}

bool LoadedEntries::OnFile(const char* path, int kind, int error) {
    const bool isState = path == Config::s_stateFile;
    m_file = isState ? m_paths.state : kind == Config::kMainFile ? m_paths.config : m_paths.events;
    const int reason = error == 0 ? 0 : ReadError(path);
    if (reason != 0 && !(isState && reason == ENOENT) && m_fault.empty()) {
        m_fault = ReadFailureText(m_file, reason);
    }
    return reason == 0;
}

void LoadedEntries::OnLine(const LineRead& line) {
    if (line.kind != Config::kEventFile || line.id == 0) {
        return;
    }
    if (line.id != m_openId) {
        m_blocks[line.id].emplace_back();
        m_openId = line.id;
    }
    m_blocks[line.id].back().lines.push_back(
        {m_file, line.number, static_cast<uint32_t>(line.nameAt) + 1, line.name, line.value,
         line.eventKey, line.outcome == LineRead::Outcome::kApplied});
}

void LoadedEntries::OnEntryClosed(uint32_t id, bool entered) {
    const auto found = m_blocks.find(id);
    if (found != m_blocks.end()) {
        found->second.back().isInForce = entered;
    }
}

}  // namespace tarnctl
