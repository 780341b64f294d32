#pragma once

// Completion of the command line for a shell, made from the option tables themselves.
//
// What an option takes is read from its type name: FILE and PATH are files, DIR is a directory, and
// words in lower case between bars, as in "N|max", are choices. Nothing else is completed.
//
// Threads: pure functions.

#include <CLI/CLI.hpp>
#include <string>

namespace tarnctl {

// The script for "bash", "zsh" or "fish"; an empty text for any other shell.
[[nodiscard]] std::string CompletionScript(const CLI::App& app, const std::string& shell);

}  // namespace tarnctl
