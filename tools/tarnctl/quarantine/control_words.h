#pragma once

// What is said on the control socket of a quarantine: one JSON object a line from the client, one
// in answer to each. docs/schemas/quarantine.json has the answers.
//
//   {"do":"list"}
//   {"do":"test","address":"10.0.0.1"}
//   {"do":"add","address":"10.0.0.1","seconds":3600,"why":"a text"}
//   {"do":"remove","address":"10.0.0.1"}
//   {"do":"flush"}
//
// An answer with the member "error" has no other: nothing was done, or not all of it.
//
// Threads: constants.

#include <cstddef>

namespace tarnctl {

inline constexpr const char* kQuarantineSocket = "/run/tarn/quarantine.sock";

inline constexpr size_t kLongestOrder = 4096;  // bytes of a line from the client
inline constexpr size_t kLongestWhy = 1000;    // bytes of a reason

}  // namespace tarnctl
