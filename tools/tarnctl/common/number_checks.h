#pragma once

// What a number on the command line has to be, with a sentence for one that is not.
//
// Threads: pure functions.

#include <CLI/CLI.hpp>
#include <cstdint>

namespace tarnctl {

[[nodiscard]] CLI::Validator AboveZero();
[[nodiscard]] CLI::Validator ZeroOrMore();
[[nodiscard]] CLI::Validator Between(double least, double most);
// A whole number from `least` to `most`.
[[nodiscard]] CLI::Validator WholeNumber(uint32_t least, uint32_t most);

}  // namespace tarnctl
