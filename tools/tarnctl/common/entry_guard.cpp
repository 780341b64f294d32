#include "tarnctl/common/entry_guard.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "paths.h"
#include "ring/shm_ring_format.h"
#include "tarnctl/common/daemon_load.h"
#include "tarnctl/common/daemon_process.h"
#include "tarnctl/common/read_error.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kTick = 10'000'000;  // nanoseconds; a step of the process list's clock

std::string PolicyText(const Node& node) {
    std::string text = "severity " + std::to_string(node.severity) + ", name \"" + node.eventName +
                       "\", response " + node.userResponse + ", rule " + node.rule + ", flags " +
                       std::to_string(node.responseFlags);
    for (const BlockRule& rule : node.blockRules) {
        text += ", block " + std::to_string(rule.flags) + " for " + std::to_string(rule.duration) +
                " s at " + std::to_string(rule.rateLimit);
    }
    return ForTerminal(text);  // it is shown and kept in JSON, and names may have any bytes
}

}  // namespace

EntryGuard::EntryGuard(GuardFiles files) : m_files(std::move(files)) {}

EntryGuard::FileTime EntryGuard::TimeOf(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
            status.st_ctim.tv_sec * kSecond + status.st_ctim.tv_nsec};
}

std::string EntryGuard::Read(bool config, bool events) {
    const DaemonLoad load(this);
    m_fault.clear();
    Config::s_stateFile = m_files.state;
    if (config) {
        m_configTime = TimeOf(m_files.config);
        Config::Load(m_files.config.c_str(), Config::kMainFile);
    }
    if (events) {
        m_eventTime = TimeOf(m_files.events);
        m_entries.clear();
        m_mostBlockRules = 0;
        Config::Load(m_files.events.c_str(), Config::kEventFile);
    }
    return m_fault;
}

std::string EntryGuard::Load() {
    return Read(true, true);
}

std::string EntryGuard::LoadChanged() {
    const bool config = TimeOf(m_files.config).second != m_configTime.second;
    const bool events = TimeOf(m_files.events).second != m_eventTime.second;
    return config || events ? Read(config, events) : "";
}

std::string EntryGuard::Changed() const {
    if (TimeOf(m_files.events) != m_eventTime) {
        return m_files.events;
    }
    return TimeOf(m_files.config) != m_configTime ? m_files.config : "";
}

std::string EntryGuard::NewerThan(int64_t loadTime) const {
    const auto isNewer = [loadTime](const FileTime& time) { return time.changed > loadTime; };
    if (isNewer(m_eventTime)) {
        return m_files.events;
    }
    return isNewer(m_configTime) ? m_files.config : "";
}

uint32_t EntryGuard::TextBytes(uint32_t signature) const {
    const auto found = m_entries.find(signature);
    return found == m_entries.end() ? 0 : found->second.textBytes;
}

EntryGuard::Policies EntryGuard::CurrentPolicies() const {
    Policies policies;
    for (const auto& [signature, entry] : m_entries) {
        policies.emplace(signature, entry.policy);
    }
    return policies;
}

nlohmann::ordered_json EntryGuard::ChangesSince(const Policies& before) const {
    nlohmann::ordered_json added = nlohmann::ordered_json::array();
    nlohmann::ordered_json removed = added;
    nlohmann::ordered_json changed = added;
    const Policies now = CurrentPolicies();
    for (const auto& [signature, policy] : now) {
        const auto former = before.find(signature);
        if (former == before.end()) {
            added.push_back({{"signature", signature}, {"policy", policy}});
        } else if (former->second != policy) {
            changed.push_back(
                {{"signature", signature}, {"before", former->second}, {"policy", policy}});
        }
    }
    for (const auto& [signature, policy] : before) {
        if (!now.contains(signature)) {
            removed.push_back({{"signature", signature}, {"policy", policy}});
        }
    }
    return {{"entries", now.size()}, {"added", added}, {"removed", removed}, {"changed", changed}};
}

int EntryGuard::Channel() {
    return Config::s_engineCrm;
}

std::string EntryGuard::CycleFile() {
    return std::string(tarn::paths::kEventQueueBase) + "CRM" + std::to_string(Channel()) +
           kShmRingSecondSuffix;
}

int64_t EntryGuard::CycleTime() {
    struct stat status = {};
    return stat(CycleFile().c_str(), &status) == 0
               ? status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec
               : 0;
}

int64_t EntryGuard::LastLoad(pid_t pid) {
    return std::max(NewestThreadStart(pid) + kTick, CycleTime());
}

bool EntryGuard::OnFile(const char* path, int, int error) {
    const int reason = error == 0 ? 0 : ReadError(path);
    if (reason != 0 && !(path == m_files.state && reason == ENOENT) && m_fault.empty()) {
        m_fault = ReadFailureText(path, reason);
    }
    return reason == 0;
}

void EntryGuard::OnEntryClosed(uint32_t id, bool entered) {
    if (!entered) {
        return;
    }
    if (const auto node = Config::s_eventTable.Find(id)) {
        const size_t bytes = node->eventName.size() + node->userResponse.size() + node->rule.size();
        m_mostBlockRules = std::max(m_mostBlockRules, node->blockRules.size());
        m_entries[id] = {static_cast<uint32_t>(bytes), PolicyText(*node)};
    }
}

}  // namespace tarnctl
