#pragma once

// The options that name the daemon's three configuration files, alike in every sub-command that
// loads them.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <string>

namespace tarnctl {

// Declares -c, -n and --state. Each text holds its default and takes the value; it lives as long
// as the command.
void AddConfigFileOptions(CLI::App& command, std::string& config, std::string& events,
                          std::string& state);

}  // namespace tarnctl
