#pragma once

// Ctrl-C and SIGTERM as a flag that the loops of the sub-commands look at, so that each ends in
// good order and with its closing line.
//
// Threads: the handler may run on any thread; the flag is a lock-free atomic.

namespace tarnctl {

// From here on SIGINT and SIGTERM set the flag and interrupt a blocking call (no SA_RESTART).
// SIGPIPE is ignored: a reader that is gone shows as EPIPE at the write, where it can be told.
void CatchStopSignals();

// True once one of the two signals has come.
[[nodiscard]] bool StopRequested();

}  // namespace tarnctl
