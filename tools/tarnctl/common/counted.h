#pragma once

// Numbers in sentences.
//
// Threads: a pure function.

#include <cstdint>
#include <string>

namespace tarnctl {

// "1 report", "2 reports".
[[nodiscard]] inline std::string Counted(uint64_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace tarnctl
