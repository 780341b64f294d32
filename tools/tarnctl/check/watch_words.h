#pragma once

// Texts that all parts of a watch put into their findings.
//
// Threads: pure functions.

#include <cstdint>
#include <string>

namespace tarnctl {

[[nodiscard]] inline std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

[[nodiscard]] inline std::string EntryName(uint32_t id) {
    return "entry " + std::to_string(id);
}

}  // namespace tarnctl
