#pragma once

// The result of an import for a person, and for a program (docs/schemas/import.json).
//
// Threads: pure functions.

#include <string>
#include <vector>

#include "tarnctl/import/import_result.h"

namespace tarnctl {

// One line for each remark and each shared signature. Of many of one kind the first ones are shown,
// and how many more there are.
[[nodiscard]] std::vector<std::string> RemarkLines(const ImportResult& result);

// "FILE: 2 entries added, 0 removed, 5 kept"
[[nodiscard]] std::string SummaryLine(const ImportResult& result);

// The diff with added and removed lines in colour.
[[nodiscard]] std::string PaintedDiff(const std::string& diff, bool isColored);

// One line, without a line end.
[[nodiscard]] std::string ImportAsJson(const ImportResult& result);

}  // namespace tarnctl
