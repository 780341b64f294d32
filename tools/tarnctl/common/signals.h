#pragma once

// Signals as flags that the loops of the sub-commands look at.
//
// A signal either asks the sub-command to stop, so that it ends in good order and with its closing
// line, or it is a request that the sub-command carries out and goes on after.
//
// Threads: a handler may run on any thread; the flags are lock-free atomics.

namespace tarnctl {

// From here on SIGINT, SIGTERM and SIGHUP ask for a stop and interrupt a blocking call (no
// SA_RESTART). A SIGHUP that is ignored stays so, as under nohup(1). SIGPIPE is ignored: a reader
// that is gone shows as EPIPE at the write.
void CatchStopSignals();

// True once one of the signals that ask for a stop has come.
[[nodiscard]] bool StopRequested();

// From here on `signal` is a request for TakeRequest(), and no longer asks for a stop.
// It interrupts a blocking call. `signal` is one of the standard signals.
void CatchRequests(int signal);

// True once for the requests by `signal` that have come since the last call.
[[nodiscard]] bool TakeRequest(int signal);

}  // namespace tarnctl
