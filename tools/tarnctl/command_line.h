#pragma once

// All of tarnctl but its main(): parses the command line and runs the sub-command.
//
// Threads: the main thread.

#include <iosfwd>

namespace tarnctl {

// Returns an exit status (exit_status.h).
[[nodiscard]] int RunCommandLine(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
