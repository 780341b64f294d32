#pragma once

// Why a file or a socket cannot be had, and what to do about it.
//
// Threads: pure functions, but for a look at the directory.

#include <string>

namespace tarnctl {

// "PATH: why; what to do". `error` is an errno.
[[nodiscard]] std::string FailureText(const std::string& path, int error);

}  // namespace tarnctl
