#pragma once

// `tarnctl reload`: makes the daemon read its files again without losing an alert, and says what
// has changed.
//
// What was in force before is known from three sources: a feeder has it; what the last reload has
// kept is it as long as the daemon is in the same cycle; and so is what the files say, as long as
// none of them is newer than the daemon's last load.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/display.h"

namespace tarnctl {

struct ReloadOptions : Display {
    std::string feeder;   // the feeder's bookmark
    std::string control;  // or its control socket
    std::string fifo = tarn::paths::kAlertFifo;
    std::string configFile = tarn::paths::kConfigFile;
    std::string eventFile = tarn::paths::kEventConfigFile;
    std::string stateFile = tarn::paths::kStateFile;
    std::string kept = "/var/lib/tarn/reload";  // what the last reload has put into force
    double wait = 60.0;                         // seconds to wait for the alerts under way
    bool force = false;
    bool json = false;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddReloadCommand(CLI::App& app, ReloadOptions& options);

// Reloads. What has changed goes to `out`, all else to `err`. Returns an exit status.
[[nodiscard]] int RunReload(const ReloadOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
