#include "tarnctl/reload/daemon_cycle.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

using Clock = std::chrono::steady_clock;

// The instance number 0 stands in the name.
constexpr const char* kPidFile = "/var/run/tarn0.pid";

constexpr int kTries = 3;

bool IsDaemon(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    return std::getline(file, name) && name == "tarn" && kill(pid, 0) == 0;
}

}  // namespace

DaemonCycle::DaemonCycle(std::string fifo, std::chrono::milliseconds patience)
    : m_fifo(std::move(fifo)), m_patience(patience) {}

DaemonCycle::~DaemonCycle() {
    if (m_inotify != -1) {
        close(m_inotify);
    }
}

std::string DaemonCycle::Find() {
    pid_t pid = 0;
    std::ifstream(kPidFile) >> pid;
    if (pid <= 0 || !IsDaemon(pid)) {
        // A daemon in the background has left its parent's number there.
        const auto daemon = FindDaemon(m_fifo);
        pid = daemon ? daemon->pid : 0;
    }
    if (pid <= 0 || !m_end.Watch(pid)) {
        return "tarn is not running; start it, and it reads its files";
    }
    m_pid = pid;
    return "";
}

bool DaemonCycle::HasFeeder() const {
    const int fd = open(m_fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    const bool isLocked = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return isLocked;
}

DaemonCycle::Seen DaemonCycle::WaitForCycle() const {
    const auto deadline = Clock::now() + m_patience;
    bool isClosed = false;
    while (Clock::now() < deadline) {
        std::array<pollfd, 2> entries = {{{m_inotify, POLLIN, 0}, {m_end.Descriptor(), POLLIN, 0}}};
        constexpr int kStep = 100;
        (void)poll(entries.data(), entries.size(), kStep);
        if (m_end.HasEnded()) {
            return Seen::kEnded;
        }
        alignas(inotify_event) std::array<char, 4096> events;
        const ssize_t length = read(m_inotify, events.data(), events.size());
        for (ssize_t at = 0; at < length;) {
            inotify_event event;
            std::memcpy(&event, events.data() + at, sizeof event);
            isClosed = isClosed || (event.mask & IN_CLOSE_NOWRITE) != 0;
            if (isClosed && (event.mask & IN_OPEN) != 0) {
                return Seen::kOpened;
            }
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    return Seen::kNothing;
}

std::string DaemonCycle::Run() {
    m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify == -1 ||
        inotify_add_watch(m_inotify, m_fifo.c_str(), IN_OPEN | IN_CLOSE_NOWRITE) == -1) {
        return FailureText(m_fifo, errno);
    }
    for (int tries = 0; tries < kTries; ++tries) {
        if (kill(m_pid, SIGHUP) != 0) {
            return FailureText("process " + std::to_string(m_pid), errno);
        }
        switch (WaitForCycle()) {
            case Seen::kOpened:
                return "";
            case Seen::kEnded:
                return "tarn has ended instead of reading its files; see its log";
            default:
                break;
        }
    }
    return "tarn does not begin a new cycle; see its log";
}

}  // namespace tarnctl
