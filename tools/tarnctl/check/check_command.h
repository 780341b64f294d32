#pragma once

// `tarnctl check`: reads the configuration with the daemon's own loader and names each thing that
// the daemon would drop, bend or take by half, and each place on this machine where it would fail.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>
#include <vector>

#include "paths.h"
#include "tarnctl/common/display.h"

namespace tarnctl {

struct CheckOptions : Display {
    std::string configFile = tarn::paths::kConfigFile;
    std::string eventFile = tarn::paths::kEventConfigFile;
    std::string stateFile = tarn::paths::kStateFile;
    std::vector<std::string> rules;
    std::vector<std::string> protects;
    bool json = false;
    bool strict = false;    // warnings make the exit status 1 too
    bool summary = false;   // each entry in plain words
    bool noPlaces = false;  // the files alone, wherever they will be used
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddCheckCommand(CLI::App& app, CheckOptions& options);

// Returns 0 where nothing was found, 1 with findings, 2 where something could not be checked. Runs
// once in a process, since it loads into the statics of Config.
[[nodiscard]] int RunCheck(const CheckOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
