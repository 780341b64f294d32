#pragma once

// `tarnctl selftest`: whether each way through the daemon works, in a sandbox of its own, or with
// one marked alert in the running daemon.
//
// Threads: one at a time.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "tarnctl/common/display.h"

namespace tarnctl {

struct SelftestOptions : Display {
    bool json = false;
    bool live = false;
    uint32_t signature = 0;       // 0: not named
    bool withQuarantine = false;  // a live alert may lead to a quarantine rule
    std::string daemon;           // empty: the one that belongs to this program
    std::string sandbox;          // likewise
    std::vector<std::string> without;
    std::vector<std::string> killed;
    bool inside = false;  // this is the process in the sandbox
};

CLI::App* AddSelftestCommand(CLI::App& app, SelftestOptions& options);

// Returns 0 when each leg is proven, 1 when one is dead, 2 when nothing could be tried.
int RunSelftest(const SelftestOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
