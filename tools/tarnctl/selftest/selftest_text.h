#pragma once

// The outcome of a self-test for a person, or as JSON; docs/schemas/selftest.json describes that.
//
// Threads: pure functions.

#include <iosfwd>

#include "tarnctl/common/display.h"
#include "tarnctl/selftest/trial.h"

namespace tarnctl {

void WriteSelftestText(const TrialResult& result, const Display& display, std::ostream& out);
void WriteSelftestJson(const TrialResult& result, std::ostream& out);

}  // namespace tarnctl
