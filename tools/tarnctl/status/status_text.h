#pragma once

// The status for a person: the verdict with each reason, then everything in groups.
//
// Threads: pure functions.

#include <iosfwd>

#include "tarnctl/common/display.h"
#include "tarnctl/health/health.h"
#include "tarnctl/health/verdict.h"

namespace tarnctl {

void WriteStatusText(const Health& health, const Verdict& verdict, const Display& display,
                     std::ostream& out);

}  // namespace tarnctl
