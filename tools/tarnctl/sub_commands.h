#pragma once

// The registry of all sub-commands.
//
// Threads: one at a time.

#include <memory>
#include <vector>

#include "tarnctl/common/sub_command.h"

namespace tarnctl {

// One object for each sub-command that this build has, in the order of the help.
[[nodiscard]] std::vector<std::unique_ptr<SubCommand>> MakeSubCommands();

}  // namespace tarnctl
