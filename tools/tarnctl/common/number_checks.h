#pragma once

// What a number on the command line has to be, with a sentence for one that is not.
//
// Threads: pure functions.

#include <CLI/CLI.hpp>

namespace tarnctl {

[[nodiscard]] CLI::Validator AboveZero();
[[nodiscard]] CLI::Validator ZeroOrMore();

}  // namespace tarnctl
