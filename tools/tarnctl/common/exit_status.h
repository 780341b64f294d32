#pragma once

// The exit statuses of tarnctl, the same for every sub-command.
//
// Threads: constants only.

namespace tarnctl {

inline constexpr int kExitFine = 0;     // did what it was asked
inline constexpr int kExitFailure = 1;  // the command line is right, the work could not be done
inline constexpr int kExitUsage = 2;    // the command line is wrong

}  // namespace tarnctl
