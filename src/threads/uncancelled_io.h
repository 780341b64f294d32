#pragma once

// read() and write() that are no cancellation points. As such they cost two atomic operations a
// call in a process with threads, whatever the cancel state: a quarter of a short read. For calls
// that do not wait, or in which no cancel may land anyway.
//
// Threads: any thread. The results and errno are those of read() and write().

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

[[nodiscard]] inline ssize_t ReadUncancelled(int fd, void* buffer, size_t size) {
    return syscall(SYS_read, fd, buffer, size);
}

[[nodiscard]] inline ssize_t WriteUncancelled(int fd, const void* bytes, size_t size) {
    return syscall(SYS_write, fd, bytes, size);
}
