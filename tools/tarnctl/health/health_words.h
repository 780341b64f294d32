#pragma once

// Readings in words, the same in every view of them.
//
// Threads: pure functions.

#include <cstdint>
#include <string>

#include "tarnctl/health/health.h"

namespace tarnctl {

// "12.5 MiB"
[[nodiscard]] std::string BytesText(uint64_t bytes);
// "3 d 04:05:06", "04:05:06"
[[nodiscard]] std::string AgeText(double seconds);
// "empty", "moving", "waiting", "stuck"
[[nodiscard]] const char* MotionWord(RingMotion motion);
// "tarn 12, snort 34", each process once; "nobody"
[[nodiscard]] std::string HoldersText(const Holders& holders);
// 0 to 100
[[nodiscard]] double PercentOf(uint64_t part, uint64_t whole);

}  // namespace tarnctl
