#pragma once

// The self-test within the sandbox: a daemon, its four stand-in peers, three alerts and an error
// line.
//
// Threads: one at a time.

#include <string>
#include <vector>

#include "tarnctl/selftest/legs.h"

namespace tarnctl {

struct TrialOptions {
    std::string tarnctl;  // this program
    std::string daemon;
    std::string folder;                // which is there, for the outputs
    std::vector<std::string> without;  // stand-ins that are not started
    std::vector<std::string> killed;   // stand-ins that are killed before the first alert
};

struct TrialResult {
    std::vector<Leg> legs;
    std::string error;  // why nothing could be tried; empty when it could
    std::string log;    // the end of the daemon's log, where a leg is dead
    double seconds = 0.0;
};

// Runs among the sandbox's private copies of the fixed paths, and nowhere else.
[[nodiscard]] TrialResult RunTrial(const TrialOptions& options);

}  // namespace tarnctl
