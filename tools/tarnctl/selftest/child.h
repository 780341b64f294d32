#pragma once

// A process of the self-test, with its two outputs in files.
//
// Threads: one at a time.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tarnctl {

class Child {
  public:
    // Starts `words`, of which the first is the program's path. The outputs go to PATH.out and
    // PATH.err.
    Child(const std::vector<std::string>& words, std::string path);
    // Ends it by SIGTERM, and by SIGKILL when that takes long.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Why it could not be started; empty when it was.
    [[nodiscard]] const std::string& Error() const { return m_error; }
    [[nodiscard]] bool IsAlive();
    // Sends SIGTERM and waits. Returns its exit status; -1 where a signal ended it or it had to be
    // killed.
    int End(std::chrono::milliseconds patience);
    void Kill();

    [[nodiscard]] std::string Output() const;
    [[nodiscard]] std::string Messages() const;

  private:
    // True when it has ended; then m_status is its status.
    bool Reap();

    const std::string m_path;
    pid_t m_process = -1;
    std::optional<int> m_status;
    std::string m_error;
};

}  // namespace tarnctl
