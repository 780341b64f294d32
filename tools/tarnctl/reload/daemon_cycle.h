#pragma once

// Makes the daemon read its files again, and sees that it has.
//
// The daemon does not answer a hangup, but it closes the alert FIFO when it leaves its reader's
// loop, and opens it again once its files have been read and its threads are there. A hangup that
// comes while the daemon begins a cycle is lost, and so it is sent again.
//
// Threads: one at a time.

#include <sys/types.h>

#include <chrono>
#include <string>

#include "tarnctl/common/daemon_process.h"

namespace tarnctl {

class DaemonCycle {
  public:
    // The daemon waits for its event thread for two seconds, and reads long files after that.
    static constexpr std::chrono::milliseconds kPatience{10000};

    // `patience` is how long a hangup may remain without effect before it is sent again.
    explicit DaemonCycle(std::string fifo, std::chrono::milliseconds patience = kPatience);
    ~DaemonCycle();
    DaemonCycle(const DaemonCycle&) = delete;
    DaemonCycle& operator=(const DaemonCycle&) = delete;

    // Finds the daemon: the process of the PID file if that is one of the daemon, else the one that
    // reads the FIFO. An empty text, or the reason.
    [[nodiscard]] std::string Find();
    [[nodiscard]] pid_t Pid() const { return m_pid; }

    // True when a feeder has the FIFO for itself.
    [[nodiscard]] bool HasFeeder() const;

    // Sends the hangup and waits for the new cycle. An empty text, or the reason.
    [[nodiscard]] std::string Run();

  private:
    enum class Seen { kOpened, kNothing, kEnded };
    // Waits until the FIFO has been closed and opened again.
    [[nodiscard]] Seen WaitForCycle() const;

    const std::string m_fifo;
    const std::chrono::milliseconds m_patience;
    pid_t m_pid = 0;
    ProcessEnd m_end;
    int m_inotify = -1;  // owned
};

}  // namespace tarnctl
