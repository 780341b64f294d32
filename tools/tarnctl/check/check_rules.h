#pragma once

// Compares the entries with the signatures of the sensor.
//
// Threads: one at a time.

#include <string>
#include <vector>

#include "tarnctl/check/finding.h"
#include "tarnctl/check/loaded_entry.h"

namespace tarnctl {

class StandardInput;

// Reads rule files, folders of them and maps, of which one may be "-", standard input, and adds a
// finding for each enabled signature without an entry, each id under two generators and each entry
// without a signature; and, for a configuration of the sensor beside the rules, for records that
// the daemon does not take. Returns what could not be read, one text for each.
[[nodiscard]] std::vector<std::string> CheckRules(const std::vector<std::string>& paths,
                                                  StandardInput& input,
                                                  const std::vector<LoadedEntry>& entries,
                                                  Findings& findings);

}  // namespace tarnctl
