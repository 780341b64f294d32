#pragma once

// Whether the daemon and its surroundings are well, and each reason why not.
//
// A fault is something that loses alerts, reports, rules, packets or messages, or is about to. A
// warning is worth knowing and may be wanted. What the verdict stands on and cannot be seen is
// named too: then nobody can say that all is well.
//
// Threads: pure functions.

#include <string>
#include <vector>

#include "tarnctl/health/health.h"

namespace tarnctl {

struct HealthFinding {
    std::string name;  // "daemon-not-running"
    std::string text;
};

enum class HealthState { kHealthy, kUnhealthy, kUnknown };

struct Verdict {
    std::vector<HealthFinding> faults;
    std::vector<HealthFinding> warnings;
    std::vector<HealthFinding> unknowns;

    [[nodiscard]] HealthState State() const;
};

// A ring that is fuller than this is about to lose reports.
inline constexpr double kRingAlmostFull = 0.9;

// Judges the later of two looks. `without` names the parts that this sensor does not have. With
// `isStrict` warnings are faults.
[[nodiscard]] Verdict Judge(const Health& before, const Health& now,
                            const std::vector<std::string>& without, bool isStrict);

}  // namespace tarnctl
