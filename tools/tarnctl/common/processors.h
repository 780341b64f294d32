#pragma once

// The processors of one that feeds the daemon.
//
// The daemon binds itself to one processor and runs with the highest priority. A write into its
// FIFO wakes it up, and on the same processor it runs at once, for one record only: each record
// then costs two switches, several times what it costs by itself.
//
// Threads: one at a time; what is bound is the calling thread.

#include <sched.h>
#include <sys/types.h>

namespace tarnctl {

class Processors {
  public:
    // Takes note of where the calling thread may run.
    Processors();

    // Binds the calling thread to what is left of these processors without those of another
    // process. Where nothing is left, or that cannot be known, all of them stay. The first form
    // asks the kernel where that process may run.
    void KeepOff(pid_t process) const;
    void KeepOff(const cpu_set_t& others) const;

  private:
    cpu_set_t m_allowed = {};
};

}  // namespace tarnctl
