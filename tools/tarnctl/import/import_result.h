#pragma once

// What an import has found and done.
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnctl/import/event_entry.h"
#include "tarnctl/snort_rules/snort_rule.h"

namespace tarnctl {

// What a reader of rules remarked, with the name of its file.
struct ImportRemark {
    RuleRemarkKind kind = RuleRemarkKind::kUnreadable;
    std::string file;
    uint32_t line = 0;  // 0: the file as a whole, which the text names
    std::string text;
};

// A signature with more than one generator, which share its entry.
struct SharedSignature {
    uint32_t id = 0;
    std::vector<uint32_t> generators;
};

struct ImportResult {
    std::string file;
    bool isDryRun = false;
    bool isWritten = false;
    bool isComplete = false;  // all rules could be read
    std::vector<EventEntry> added;
    std::vector<uint32_t> removed;  // ids of entries that were in force
    size_t kept = 0;                // entries
    std::vector<SharedSignature> shared;
    std::vector<ImportRemark> remarks;
    std::string diff;   // of a dry run; empty where nothing changes
    std::string error;  // why nothing was done; empty where all went well
};

}  // namespace tarnctl
