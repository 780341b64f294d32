#pragma once

// The status in the text format of Prometheus. What is unknown has no sample.
//
// Threads: pure functions.

#include <iosfwd>

#include "tarnctl/health/health.h"
#include "tarnctl/health/verdict.h"

namespace tarnctl {

void WriteStatusMetrics(const Health& health, const Verdict& verdict, std::ostream& out);

}  // namespace tarnctl
