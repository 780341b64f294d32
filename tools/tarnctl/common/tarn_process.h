#pragma once

// Whether the daemon runs, so that a sub-command can say what it waits for.
//
// Threads: a pure function, but for a look at /proc.

namespace tarnctl {

// How long a sub-command may wait before it says what for, in milliseconds.
inline constexpr int kSilentWait = 100;

// True when a process of the daemon's name is alive. A process number is asked for nowhere: the
// number in the PID file is that of the daemon's parent where the daemon went to the background.
[[nodiscard]] bool IsTarnRunning();

}  // namespace tarnctl
