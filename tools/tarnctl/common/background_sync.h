#pragma once

// Puts what was written to a file on the disk, without a wait for the disk: a process of its own
// does that.
//
// Threads: one at a time.

#include <sys/types.h>

#include <utility>

namespace tarnctl {

class BackgroundSync {
  public:
    BackgroundSync() = default;
    // Leaves a process that is under way to itself; it ends when the disk has answered.
    ~BackgroundSync() = default;
    BackgroundSync(const BackgroundSync&) = delete;
    BackgroundSync& operator=(const BackgroundSync&) = delete;

    // Begins to put the file behind this descriptor on the disk. False if that cannot begin, as the
    // last one is under way or there is no process to be had.
    [[nodiscard]] bool Begin(int fd);

    // True until the process that was begun has ended.
    [[nodiscard]] bool IsUnderWay();

    // The errno of the one that has ended, once; 0 when all is well.
    [[nodiscard]] int TakeError() { return std::exchange(m_error, 0); }

  private:
    pid_t m_process = -1;  // owned
    int m_error = 0;
};

}  // namespace tarnctl
