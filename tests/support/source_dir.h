#pragma once

// Where the tree is that the tests were built from: they read samples and pages of it.
//
// Threads: any.

#include <string>

// An absolute path without a slash at its end.
[[nodiscard]] std::string SourceDir();
