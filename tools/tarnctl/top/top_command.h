#pragma once

// `tarnctl top`: how the daemon and its surroundings are, on the whole terminal, again and again.
//
// Threads: one at a time.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/common/display.h"

namespace tarnctl {

struct TopOptions : Display {
    double interval = 1.0;  // seconds between two looks
    std::optional<int> channel;
    std::optional<std::string> logFile;
    std::vector<std::string> without;
};

CLI::App* AddTopCommand(CLI::App& app, TopOptions& options);

// Returns an exit status: a failure where there is no terminal.
int RunTop(const TopOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
