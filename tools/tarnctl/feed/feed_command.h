#pragma once

// `tarnctl feed`: follows the sensor's spool files and feeds the daemon so that no alert is lost on
// the way to its report.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/display.h"

namespace tarnctl {

struct FeedOptions : Display {
    std::string spool;     // folder and prefix
    std::string bookmark;  // file
    std::string rejects;   // spool file; beside the bookmark unless named
    std::string control;   // socket; beside the bookmark unless named
    std::string prometheus;
    std::string fifo = tarn::paths::kAlertFifo;
    std::string configFile = tarn::paths::kConfigFile;
    std::string eventFile = tarn::paths::kEventConfigFile;
    std::string stateFile = tarn::paths::kStateFile;
    uint32_t window = 512;  // most alerts under way
    double rate = 0.0;      // alerts a second; 0: no limit
    bool once = false;      // ends when all is fed and reported
    bool follow = false;    // the default
    bool refeed = false;    // feeds what was rejected before
    bool json = false;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddFeedCommand(CLI::App& app, FeedOptions& options);

// Feeds. The closing line goes to `out`, all else to `err`. Returns an exit status.
[[nodiscard]] int RunFeed(const FeedOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
