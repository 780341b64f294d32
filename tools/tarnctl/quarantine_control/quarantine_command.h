#pragma once

// `tarnctl quarantine`: shows and changes what a running `tarnctl secmgr --control` has in force.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/quarantine/control_words.h"

namespace tarnctl {

struct QuarantineOptions : Display {
    std::string action;   // list, test, add, remove or flush
    std::string address;  // of test, add and remove
    std::string duration = "1h";
    std::string why;
    std::string control = kQuarantineSocket;
    bool json = false;
    bool yes = false;  // nothing is asked
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddQuarantineCommand(CLI::App& app, QuarantineOptions& options);

// Returns an exit status: a failure when the service is not there or refuses.
[[nodiscard]] int RunQuarantine(const QuarantineOptions& options, std::ostream& out,
                                std::ostream& err);

// Seconds from a number with s, m, h, d or nothing, for seconds, behind it: "90", "30m", "2h". 0
// for anything else, and for what is more than a hundred years.
[[nodiscard]] int64_t ParseDuration(const std::string& text);

}  // namespace tarnctl
