#pragma once

// The help of tarnctl and of each sub-command: what it does, examples, usage, options, notes, in
// lines that fit the width.
//
// A sub-command gives its examples and notes as the footer of its CLI::App. What follows the line
// "Examples:" is one example per line, "  COMMAND" or "  COMMAND  what it does" with two blanks or
// more between them; what is in front of that line are paragraphs of notes.
//
// Threads: pure functions.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarnctl {

inline constexpr size_t kHelpWidth = 80;  // columns, where the terminal is not narrower

// The help of `app`, which is called as `name`, as in "tarnctl crm".
[[nodiscard]] std::string HelpText(const CLI::App& app, const std::string& name, size_t width);

// The text in lines of at most `width` columns, each with `indent` blanks in front and a line end.
// Line ends within the text stay. A word that is longer than a line has one to itself.
[[nodiscard]] std::string Wrapped(std::string_view text, size_t width, size_t indent);

}  // namespace tarnctl
