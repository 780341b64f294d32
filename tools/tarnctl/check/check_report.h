#pragma once

// Findings and entries for a person and for a program. docs/schemas/check.json describes the
// latter.
//
// Threads: pure functions.

#include <iosfwd>
#include <string>
#include <vector>

#include "tarnctl/check/finding.h"
#include "tarnctl/check/loaded_entry.h"
#include "tarnctl/common/display.h"

namespace tarnctl {

struct CheckResult {
    std::vector<std::string> files;  // in the order in which they were read
    size_t lines = 0;                // settings in them
    Findings findings;
    std::vector<LoadedEntry> entries;

    [[nodiscard]] size_t Count(FindingLevel level) const;
};

// Findings ordered by file, line and column; those of the machine last.
void SortFindings(CheckResult& result);

// On a terminal the texts are folded to its width, and of a long line what is around the mark is
// shown.
void WriteFindings(const CheckResult& result, const Display& display, std::ostream& out);
// One line for each entry, in plain words.
void WriteSummary(const CheckResult& result, const Display& display, std::ostream& out);
void WriteJson(const CheckResult& result, bool withEntries, std::ostream& out);

}  // namespace tarnctl
