#include "tarnctl/common/daemon_process.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDaemonName = "tarn";
constexpr int64_t kSecond = 1'000'000'000;
constexpr int kFieldsBeforeStart = 19;  // of stat, after the name and the state

struct StatLine {
    std::string name;
    char state = 'Z';
    int64_t startTicks = 0;  // since the machine's start
};

// "NUMBER (NAME) STATE ..." A name may hold blanks and brackets, so the last bracket ends it.
std::optional<StatLine> ReadStat(const fs::path& path) {
    std::ifstream file(path);
    std::string text;
    if (!std::getline(file, text)) {
        return std::nullopt;
    }
    const size_t begin = text.find('(');
    const size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return std::nullopt;
    }
    StatLine line;
    line.name = text.substr(begin + 1, end - begin - 1);
    std::istringstream rest(text.substr(end + 1));
    rest >> line.state;
    std::string skipped;
    for (int field = 1; field < kFieldsBeforeStart; ++field) {
        rest >> skipped;
    }
    rest >> line.startTicks;
    return line;
}

int64_t Nanoseconds(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

int64_t EpochOfTicks(int64_t ticks) {
    const int64_t sinceStart = ticks * (kSecond / sysconf(_SC_CLK_TCK));
    return Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_BOOTTIME) + sinceStart;
}

bool HasOpen(const fs::path& process, const struct stat& file) {
    std::error_code error;
    for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        struct stat status = {};
        if (stat(entry->path().c_str(), &status) == 0 && status.st_ino == file.st_ino &&
            status.st_dev == file.st_dev) {
            return true;
        }
    }
    return false;
}

bool IsNumber(const std::string& name) {
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<DaemonProcess> FindDaemon(const std::string& fifo) {
    struct stat file = {};
    const bool hasFifo = stat(fifo.c_str(), &file) == 0;
    std::optional<DaemonProcess> only;
    int found = 0;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string number = entry->path().filename();
        if (!IsNumber(number)) {
            continue;
        }
        const auto line = ReadStat(entry->path() / "stat");
        if (!line || line->name != kDaemonName || line->state == 'Z') {
            continue;
        }
        const auto pid = static_cast<pid_t>(std::strtol(number.c_str(), nullptr, 10));
        if (hasFifo && HasOpen(entry->path(), file)) {
            return DaemonProcess{pid, true};
        }
        only = DaemonProcess{pid, false};
        ++found;
    }
    return found == 1 ? only : std::nullopt;
}

int64_t NewestThreadStart(pid_t pid) {
    int64_t newest = 0;
    std::error_code error;
    for (fs::directory_iterator entry(fs::path("/proc") / std::to_string(pid) / "task", error), end;
         !error && entry != end; entry.increment(error)) {
        const auto line = ReadStat(entry->path() / "stat");
        if (line && line->state != 'Z') {
            newest = std::max(newest, EpochOfTicks(line->startTicks));
        }
    }
    return newest;
}

ProcessEnd::~ProcessEnd() {
    Forget();
}

bool ProcessEnd::Watch(pid_t pid) {
    Forget();
    m_fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));  // close-on-exec by itself
    return m_fd != -1;
}

void ProcessEnd::Forget() {
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
}

bool ProcessEnd::HasEnded() const {
    pollfd entry = {.fd = m_fd, .events = POLLIN, .revents = 0};
    return m_fd != -1 && poll(&entry, 1, 0) > 0;
}

}  // namespace tarnctl
