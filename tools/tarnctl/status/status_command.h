#pragma once

// `tarnctl status`: how the daemon and its surroundings are, once.
//
// Threads: one at a time.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/common/display.h"

namespace tarnctl {

struct StatusOptions : Display {
    bool json = false;
    bool prometheus = false;
    bool strict = false;
    double look = 0.2;    // seconds between the two looks
    double recent = 900;  // seconds for which a loss in the log counts
    std::optional<int> channel;
    std::optional<std::string> logFile;
    std::vector<std::string> without;
};

CLI::App* AddStatusCommand(CLI::App& app, StatusOptions& options);

// Returns 0 when all is well, 1 when it is not, 2 when that cannot be said.
int RunStatus(const StatusOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
