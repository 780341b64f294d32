#pragma once

// The running daemon, as the process list shows it.
//
// The number in the PID file is that of the daemon's parent where the daemon went to the
// background, so the process is looked for: it has the daemon's name and the alert FIFO open. Where
// its descriptors may not be looked at, the only process of that name is taken.
//
// Threads: pure functions, but for a look at /proc.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tarnctl {

struct DaemonProcess {
    pid_t pid = 0;
    bool readsFifo = false;  // has the FIFO open; unknown descriptors count as false
};

// The daemon that reads the FIFO, else the only process of the daemon's name.
[[nodiscard]] std::optional<DaemonProcess> FindDaemon(const std::string& fifo);

// When the newest thread of the process began, in nanoseconds since the epoch; 0 when there is no
// such process. The daemon makes its event thread anew after each load, so that its files were read
// before this time; with a single thread this is the time of its start. The clock of the process
// list has steps of a hundredth of a second.
[[nodiscard]] int64_t NewestThreadStart(pid_t pid);

// A descriptor that becomes readable when a process ends. Owns it.
class ProcessEnd {
  public:
    ProcessEnd() = default;
    ~ProcessEnd();
    ProcessEnd(const ProcessEnd&) = delete;
    ProcessEnd& operator=(const ProcessEnd&) = delete;

    // Watches this process from here on. False when it is gone already.
    bool Watch(pid_t pid);
    void Forget();

    [[nodiscard]] bool IsWatching() const { return m_fd != -1; }
    [[nodiscard]] bool HasEnded() const;
    [[nodiscard]] int Descriptor() const { return m_fd; }

  private:
    int m_fd = -1;  // owned
};

}  // namespace tarnctl
