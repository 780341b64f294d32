#pragma once

// A process of its own under a name of the test's choice, as the process list shows it.
//
// Threads: the test's own, and no other may run as it is made.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

class NamedProcess {
  public:
    // What the process does at each hangup, with the descriptor of the file that it has open.
    using OnHangup = std::function<void(int& fd)>;

    // Begins the process, which opens `file` for reading unless that is empty. It is there under
    // its name when the constructor returns.
    explicit NamedProcess(const std::string& name, const std::string& file = "",
                          const OnHangup& onHangup = nullptr) {
        std::array<int, 2> ready = {};
        if (pipe2(ready.data(), O_CLOEXEC) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            Live(name, file, onHangup, ready[1]);
        }
        close(ready[1]);
        std::byte any = {};
        m_isReady = read(ready[0], &any, 1) == 1;
        close(ready[0]);
    }
    ~NamedProcess() {
        End();
        Reap();
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;

    bool IsReady() const { return m_isReady; }
    pid_t Pid() const { return m_pid; }
    // Ends it; its entry in the process list stays until Reap().
    void End() const {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            siginfo_t ignored = {};
            (void)waitid(P_PID, static_cast<id_t>(m_pid), &ignored, WEXITED | WNOWAIT);
        }
    }
    void Reap() {
        if (m_pid > 0) {
            (void)waitpid(std::exchange(m_pid, -1), nullptr, 0);
        }
    }

  private:
    [[noreturn]] static void Live(const std::string& name, const std::string& file,
                                  const OnHangup& onHangup, int ready) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)prctl(PR_SET_NAME, name.c_str());
        sigset_t hangup;
        sigemptyset(&hangup);
        sigaddset(&hangup, SIGHUP);
        sigprocmask(SIG_BLOCK, &hangup, nullptr);
        int fd = file.empty() ? -1 : open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        (void)!write(ready, "", 1);
        while (true) {
            int signal = 0;
            (void)sigwait(&hangup, &signal);
            if (onHangup) {
                onHangup(fd);
            }
        }
    }

    pid_t m_pid = -1;
    bool m_isReady = false;
};
