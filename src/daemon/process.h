#pragma once

// Free functions of the process frame: inherited descriptors, the daemon step, and the PID file
// with its running-copy test. They log nothing; the caller reports.
//
// Threads: for the main thread; CloseInheritedDescriptors and Daemonize before any other thread
// exists.

#include <sys/types.h>

// Closes every descriptor above the three standard ones, up to the limit of open files.
void CloseInheritedDescriptors();

// Leaves the terminal: forks if `fork` is true (the parent ends with status 0, a failed fork with
// status 1), starts a session, changes to "/", sets the umask to 022 and points descriptors 0, 1
// and 2 at the null device.
void Daemonize(bool fork);

// Writes the process number in decimal and a line end. False only if the file cannot be opened.
[[nodiscard]] bool WritePidFile(const char* path);

// 0, or -1 with errno.
int RemovePidFile(const char* path);

// Whether the process that the PID file names is alive. `pid`, unless null, receives the number in
// the file, and stays as it was when there is no file.
[[nodiscard]] bool IsProcessRunning(const char* name, const char* pidFile, int* pid);

// Whether a process with this number is alive and, as far as the inodes of its executable and of
// the file `name` in the current directory show, is an instance of `name`. A null `name` is that of
// any program.
[[nodiscard]] bool IsProcessAlive(const char* name, int pid);

// Sends SIGTERM to the running copy and waits for its end at most `seconds` seconds. True if there
// was none or if it went in time.
[[nodiscard]] bool StopProcess(const char* name, const char* pidFile, unsigned seconds);
