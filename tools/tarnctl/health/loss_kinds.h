#pragma once

// What the daemon's log says when something is lost or fails, sorted into kinds.
//
// Threads: constants and pure functions.

#include <cstdint>
#include <span>
#include <string_view>

namespace tarnctl {

struct LossKind {
    const char* name;       // "queue-full"
    const char* beginning;  // of the message, as the daemon writes it
    const char* meaning;
    bool isCounted = false;  // the first number of the message is how many were lost
};

[[nodiscard]] std::span<const LossKind> LossKinds();

// The place of a message's kind in LossKinds(), or -1 for a message of none.
[[nodiscard]] int LossKindOf(std::string_view message);

// How many things a message of this kind says were lost; 1 for most.
[[nodiscard]] uint64_t LossesOf(const LossKind& kind, std::string_view message);

}  // namespace tarnctl
