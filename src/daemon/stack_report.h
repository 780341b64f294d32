#pragma once

// A report on a thread that is to be examined while it runs: the signal's details in words and a
// numbered stack. It goes out on the log's console path, once in a process.
//
// Threads: RequestStackReport may be called by any thread. The report runs on the examined one, in
// its signal handler. A thread that blocks or a process that ignores SIGUSR2 yields no report.

#include <pthread.h>

#include <csignal>

// Installs the handler for SIGUSR2 and sends the signal to the thread, which must be alive.
void RequestStackReport(pthread_t thread);

// The handler. A null `info` leaves out all but the stack.
void ReportThreadFault(int sig, siginfo_t* info, void* context);

// What `si_code` says about a signal; "unknown" for a code that is in no table.
[[nodiscard]] const char* SignalCodeText(int sig, int code);
