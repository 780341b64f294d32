#pragma once

// The options that choose what is looked at, alike in every sub-command that looks at health.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tarnctl {

inline constexpr const char* kPartChoice = "crm|messages|secmgr|packetlog";

// That a word is the name of a peer.
[[nodiscard]] CLI::Validator IsPart();

// Declares `--without`, which names peers that are not expected.
void AddWithoutOption(CLI::App& command, std::vector<std::string>& without);

// Declares `--channel` and `--log`, for what the daemon's configuration does not say.
void AddPlaceOptions(CLI::App& command, std::optional<int>& channel,
                     std::optional<std::string>& logFile);

}  // namespace tarnctl
