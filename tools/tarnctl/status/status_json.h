#pragma once

// The status as one JSON object; docs/schemas/status.json describes it.
//
// Threads: pure functions.

#include <iosfwd>

#include "tarnctl/health/health.h"
#include "tarnctl/health/verdict.h"

namespace tarnctl {

void WriteStatusJson(const Health& health, const Verdict& verdict, std::ostream& out);

}  // namespace tarnctl
