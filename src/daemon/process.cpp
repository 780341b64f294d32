#include "daemon/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kFirstInheritedDescriptor = 3;
constexpr mode_t kDaemonUmask = 022;
constexpr mode_t kPidFileMode = 0644;
constexpr size_t kPidTextLimit = 79;  // more than this of a PID file is not looked at
constexpr useconds_t kPollMicroseconds = 10000;
constexpr unsigned kPollsPerSecond = 100;

}  // namespace

void CloseInheritedDescriptors() {
    const long limit = sysconf(_SC_OPEN_MAX);
    if (limit <= kFirstInheritedDescriptor) {
        return;
    }
    // One call where the kernel has it: the limit can be a million.
    if (close_range(kFirstInheritedDescriptor, static_cast<unsigned>(limit - 1), 0) == 0) {
        return;
    }
    for (long fd = kFirstInheritedDescriptor; fd < limit; ++fd) {
        close(static_cast<int>(fd));
    }
}

void Daemonize(bool fork) {
    if (fork) {
        const pid_t child = ::fork();
        if (child < 0) {
            exit(1);
        }
        if (child > 0) {
            exit(0);
        }
    }
    (void)setsid();  // fails only for a process group leader, which a child never is
    if (chdir("/") != 0) {
        // The root directory is always there; nothing follows from a failure.
    }
    umask(kDaemonUmask);
    const int null = open("/dev/null", O_RDWR);
    if (null < 0) {
        return;
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, standard);
    }
    if (null > STDERR_FILENO) {
        close(null);
    }
}

bool WritePidFile(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPidFileMode);
    if (fd < 0) {
        return false;
    }
    (void)dprintf(fd, "%d\n", getpid());  // a full disk leaves an empty file: no running copy
    close(fd);
    return true;
}

int RemovePidFile(const char* path) {
    return unlink(path);
}

bool IsProcessRunning(const char* name, const char* pidFile, int* pid) {
    const int fd = open(pidFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::array<char, kPidTextLimit + 1> text{};
    if (read(fd, text.data(), kPidTextLimit) < 0) {
        text[0] = '\0';
    }
    close(fd);
    const int number = static_cast<int>(std::strtol(text.data(), nullptr, 10));
    if (pid != nullptr) {
        *pid = number;
    }
    return number != 0 && IsProcessAlive(name, number);
}

bool IsProcessAlive(const char* name, int pid) {
    if (pid == 0) {
        return false;
    }
    if (kill(pid, 0) != 0 && errno != EPERM) {
        return false;
    }
    if (name == nullptr) {
        return true;
    }
    // Deliberate: a bare program name is looked up in the current directory, so a daemon that is
    // started from elsewhere takes any live process with this number for a running copy. To refuse
    // a start is the safe side.
    const std::string executable = "/proc/" + std::to_string(pid) + "/exe";
    struct stat running {};
    struct stat named {};
    if (stat(executable.c_str(), &running) != 0 || stat(name, &named) != 0) {
        return true;
    }
    return running.st_ino == named.st_ino;
}

bool StopProcess(const char* name, const char* pidFile, unsigned seconds) {
    int pid = 0;
    if (!IsProcessRunning(name, pidFile, &pid) || kill(pid, SIGTERM) != 0) {
        return true;
    }
    for (unsigned pass = 0; pass < seconds * kPollsPerSecond; ++pass) {
        if (kill(pid, 0) != 0) {
            return true;
        }
        usleep(kPollMicroseconds);
    }
    return false;
}
