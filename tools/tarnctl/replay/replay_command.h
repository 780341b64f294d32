#pragma once

// `tarnctl replay`: plays a unified2 file to the daemon, as the sensor would write it.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "tarnctl/common/display.h"

namespace tarnctl {

// Alerts a second at which a daemon with its default settings drops nothing. It leaves the event
// thread two milliseconds for each alert, a hundred times what a report takes, and the daemon's
// queue of 1024 alerts covers two seconds in which that thread does not run at all.
inline constexpr double kDefaultRate = 500.0;

struct ReplayOptions : Display {
    std::string file;
    std::string fifo;            // the daemon's own unless --fifo names another
    double rate = kDefaultRate;  // alerts a second; 0: as fast as the daemon reads
    uint64_t loop = 1;           // times that the file is played
    double wait = 0.0;           // seconds to wait for the FIFO and its reader
    bool now = false;            // the records leave with the present time
    bool json = false;           // the summary as a JSON object
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddReplayCommand(CLI::App& app, ReplayOptions& options);

// Plays the file. The summary goes to `out`, all else to `err`. Returns an exit status: a failure
// unless all of the file went out and the reader has taken it.
[[nodiscard]] int RunReplay(const ReplayOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
