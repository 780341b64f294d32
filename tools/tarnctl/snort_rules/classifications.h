#pragma once

// The priorities of rule classes: what a sensor takes when no classification.config says otherwise.
//
// Threads: a pure function.

#include <cstdint>
#include <string_view>

namespace tarnctl {

// 1 is the most severe, 4 the least; 0 for a class that is not among the well-known ones.
[[nodiscard]] uint32_t DefaultPriority(std::string_view classification);

}  // namespace tarnctl
