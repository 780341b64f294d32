#pragma once

// What a reload has put into force, kept in a file for the next one, which says what changes.
//
// The daemon does not tell what it has read. What was kept is in force as long as the same daemon
// is in the same cycle: each load begins a cycle, and each cycle touches a ring file. Whoever else
// attaches to the ring touches that too; what is in force then counts as not known.
//
// Threads: plain functions.

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tarnctl/common/entry_guard.h"

namespace tarnctl {

// A cycle of the daemon, and from which files it has its entries.
struct CycleMark {
    pid_t daemon = 0;
    std::string ring;  // the ring file that the cycle touched
    int64_t time = 0;  // when, in nanoseconds since the epoch
    std::string configFile;
    std::string eventFile;

    bool operator==(const CycleMark&) const = default;
};

struct KeptEntries {
    CycleMark mark;
    EntryGuard::Policies policies;
};

// Both return an empty text, or a reason. Where nothing is kept the result is empty, with mark.time
// 0, and that is no fault. To keep makes the file's folder if that is missing.
[[nodiscard]] std::string KeepEntries(const std::string& path, const KeptEntries& entries);
[[nodiscard]] std::string LoadKeptEntries(const std::string& path, KeptEntries& entries);

}  // namespace tarnctl
