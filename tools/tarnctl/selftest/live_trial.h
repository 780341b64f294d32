#pragma once

// One marked alert through the running daemon, whose traces are looked for without taking anything
// from the peers.
//
// Threads: one at a time.

#include <cstdint>
#include <functional>
#include <string>

#include "tarnctl/health/health_places.h"
#include "tarnctl/selftest/trial.h"

namespace tarnctl {

struct LiveOptions {
    uint32_t signature = 0;
    bool withQuarantine = false;
    HealthPlaces places;
};

// `say` gets what is about to be done, before it is done. Sends nothing when the daemon does not
// run, when the signature has no entry that is in force, or when it would lead to a quarantine rule
// that was not asked for.
[[nodiscard]] TrialResult RunLiveTrial(const LiveOptions& options,
                                       const std::function<void(const std::string&)>& say);

}  // namespace tarnctl
