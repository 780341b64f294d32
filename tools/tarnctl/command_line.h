#pragma once

// The whole of tarnctl behind its main(): parses the command line and runs the sub-command.

#include <iosfwd>

namespace tarnctl {

// Returns an exit status (exit_status.h).
[[nodiscard]] int RunCommandLine(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
