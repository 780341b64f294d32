#pragma once

// Whether the tables of this network may be changed.
//
// Threads: pure functions, but for a look at the process's environment and namespace.

#include <string>

namespace tarnctl {

// Within scripts/sandbox the network is the machine's unless the sandbox has one of its own.
// Returns the reason why its tables must not be changed; an empty string if they may be, and always
// outside a sandbox.
[[nodiscard]] std::string ObjectionToThisNetwork();

// The network namespace of this process, by a name that no other one has; empty where it cannot be
// found out.
[[nodiscard]] std::string ThisNetwork();

}  // namespace tarnctl
