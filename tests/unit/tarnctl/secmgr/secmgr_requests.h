#pragma once

// Requests to the security manager, byte by byte and without the daemon's code.
//
// Threads: pure functions.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tarnctl {

// Words in the order of the host.
inline std::string Words(const std::vector<uint32_t>& words) {
    std::string bytes(words.size() * 4, '\0');
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

inline std::string RequestFrame(const std::string& text, uint32_t issueId, uint32_t flags = 1) {
    return Words({11, static_cast<uint32_t>(text.size() + 9), flags, issueId}) + text + '\0';
}

}  // namespace tarnctl
