#pragma once

// Whether a file can be read, found out before it is read: a stream opens a directory as well, and
// an iterator over its bytes throws there.
//
// Threads: pure functions but for the look at the file.

#include <string>

namespace tarnctl {

// Why a file cannot be read, as errno, EISDIR for a directory; 0 where it can.
[[nodiscard]] int ReadError(const std::string& path);

// "path: reason; what to do", for a file that was to be read.
[[nodiscard]] std::string ReadFailureText(const std::string& path, int error);

}  // namespace tarnctl
