#pragma once

// Reads a text file whole.
//
// Threads: a pure function, but for the file.

#include <sys/stat.h>

#include <string>

namespace tarnctl {

// Returns 0, or the errno of what failed. `status`, if given, is the file's. The text of a folder
// is empty.
[[nodiscard]] int ReadTextFile(const std::string& path, std::string& text,
                               struct stat* status = nullptr);

}  // namespace tarnctl
