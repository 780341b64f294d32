#pragma once

// SIGUSR1 as a flag: the wish to see the table of rules in force.
//
// Threads: the handler may run on any thread; the flag is a lock-free atomic.

namespace tarnctl {

// From here on SIGUSR1 sets the flag and interrupts a blocking call.
void CatchTableSignal();

// True once for the signals that have come since the last call.
[[nodiscard]] bool TakeTableRequest();

}  // namespace tarnctl
