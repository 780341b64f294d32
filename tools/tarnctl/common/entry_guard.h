#pragma once

// Which signatures have an entry in the daemon as it runs, for an alert without one ends it.
//
// The feeder keeps it for as long as it feeds, a reload for what was in force and what is.
//
// The daemon reads its files when it starts and, at a hangup, those whose time has changed. The
// guard does the same with the daemon's own loader, at the same moments, so that it has what the
// daemon has and not what the files say by now. A daemon that was there before the guard may have
// read another text of a file that is newer than its last load: what is in force is then not known.
//
// Only one object may exist at a time: the loader's table and settings are static.
//
// Threads: one at a time.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/load_observer.h"

namespace tarnctl {

struct GuardFiles {
    std::string config;  // tarn.conf
    std::string events;  // tarn_event.conf
    std::string state;
};

class EntryGuard final : public LoadObserver {
  public:
    explicit EntryGuard(GuardFiles files);
    ~EntryGuard() override = default;

    // Reads all files, as a daemon that starts does. An empty text, or why one cannot be read.
    [[nodiscard]] std::string Load();
    // Reads what has changed since, as a daemon does at a hangup.
    [[nodiscard]] std::string LoadChanged();

    // The first file whose time is not what it was as it was read, or an empty text.
    [[nodiscard]] std::string Changed() const;
    // The first file that was changed after `loadTime`, in nanoseconds since the epoch.
    [[nodiscard]] std::string NewerThan(int64_t loadTime) const;

    [[nodiscard]] bool HasEntry(uint32_t signature) const { return m_entries.contains(signature); }
    // The bytes that the texts of an entry add to a report.
    [[nodiscard]] uint32_t TextBytes(uint32_t signature) const;
    // The quarantine rules of the entry that has the most.
    [[nodiscard]] size_t MostBlockRules() const { return m_mostBlockRules; }
    [[nodiscard]] size_t Count() const { return m_entries.size(); }
    // What each entry says, by its signature, and what has changed of it since, as JSON.
    using Policies = std::map<uint32_t, std::string>;
    [[nodiscard]] Policies CurrentPolicies() const;
    [[nodiscard]] nlohmann::ordered_json ChangesSince(const Policies& before) const;

    // Of tarn.conf.
    [[nodiscard]] static int Channel();
    // The second ring of that channel, which carries no reports. Its file is touched when the
    // daemon begins a cycle, which is after its files have been read, and by whoever else attaches
    // to it.
    [[nodiscard]] static std::string CycleFile();
    // When that was, in nanoseconds since the epoch; 0 when there is no such file.
    [[nodiscard]] static int64_t CycleTime();
    // A moment after which the daemon of this process number has not read its files, in nanoseconds
    // since the epoch.
    [[nodiscard]] static int64_t LastLoad(pid_t pid);

    bool OnFile(const char* path, int kind, int error) override;
    void OnLine(const LineRead&) override {}
    void OnEntryClosed(uint32_t id, bool entered) override;

  private:
    // The daemon compares whole seconds.
    struct FileTime {
        int64_t second = 0;
        long nanosecond = 0;
        int64_t changed = 0;  // nanoseconds since the epoch; a file's own time may be any
        bool operator==(const FileTime&) const = default;
    };
    [[nodiscard]] static FileTime TimeOf(const std::string& path);
    [[nodiscard]] std::string Read(bool config, bool events);

    GuardFiles m_files;
    FileTime m_configTime;
    FileTime m_eventTime;
    std::string m_fault;
    size_t m_mostBlockRules = 0;
    struct Entry {
        uint32_t textBytes = 0;
        std::string policy;
    };
    std::unordered_map<uint32_t, Entry> m_entries;  // by signature
};

}  // namespace tarnctl
