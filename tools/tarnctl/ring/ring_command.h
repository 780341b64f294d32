#pragma once

// `tarnctl ring`: shows the daemon's rings, finds those that are stuck, and mends or empties them.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "tarnctl/common/display.h"

namespace tarnctl {

struct RingOptions : Display {
    std::string action;  // show, check, repair or reset
    std::vector<std::string> rings;
    bool json = false;
    uint64_t count = 20;    // messages of each ring that are shown; 0: all
    double interval = 0.5;  // seconds between two looks
    int writer = 0;         // the number of a process that writes in the daemon's place
    bool yes = false;       // nothing is asked
    bool force = false;     // processes that cannot be looked into do not have the ring
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddRingCommand(CLI::App& app, RingOptions& options);

// Returns an exit status: of `check` 0 where no ring is damaged, 1 where one is, 2 where one could
// not be looked at; of the others 0 or 1.
[[nodiscard]] int RunRing(const RingOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
