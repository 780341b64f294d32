#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "tarnctl/health/parts.h"

namespace tarnctl {
namespace {

constexpr off_t kTailBytes = off_t{4} * 1024 * 1024;  // of each of the two files

// The end of a file, from the first line that begins within it. False with errno.
bool ReadTail(const std::string& path, std::string& text, bool& isWhole) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd == -1) {
        return false;
    }
    struct stat status = {};
    const bool isFile = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const off_t begin = isFile ? std::max<off_t>(0, status.st_size - kTailBytes) : 0;
    text.resize(isFile ? static_cast<size_t>(status.st_size - begin) : 0);
    const ssize_t length = pread(fd, text.data(), text.size(), begin);
    const int error = isFile ? errno : EINVAL;
    close(fd);
    if (!isFile || length < 0) {
        errno = error;
        return false;
    }
    text.resize(static_cast<size_t>(length));
    isWhole = begin == 0;
    if (!isWhole) {
        text.erase(0, text.find('\n') + 1);
    }
    return true;
}

// "2026/11/21 10:20:30.123 T:140 MESSAGE". False for what is no such line, as the rest of a message
// with line ends of its own.
bool ParseLine(std::string_view line, double& time, std::string_view& message) {
    static constexpr size_t kTimeBytes = 23;
    tm parts = {};
    int milliseconds = 0;
    const std::string stamp(line.substr(0, kTimeBytes));
    if (std::sscanf(stamp.c_str(), "%4d/%2d/%2d %2d:%2d:%2d.%3d", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec,
                    &milliseconds) != 7 ||
        line.substr(kTimeBytes, 3) != " T:") {
        return false;
    }
    constexpr int kFirstYear = 1900;
    parts.tm_year -= kFirstYear;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    // The conversion is slow, and lines that follow each other mostly have the same second.
    static thread_local tm lastParts = {};
    static thread_local time_t lastTime = 0;
    const auto isSame = [&parts] {
        return parts.tm_sec == lastParts.tm_sec && parts.tm_min == lastParts.tm_min &&
               parts.tm_hour == lastParts.tm_hour && parts.tm_mday == lastParts.tm_mday &&
               parts.tm_mon == lastParts.tm_mon && parts.tm_year == lastParts.tm_year;
    };
    if (!isSame()) {
        lastParts = parts;
        lastTime = mktime(&parts);
    }
    constexpr double kMillisecond = 1e-3;
    time = static_cast<double>(lastTime) + milliseconds * kMillisecond;
    const size_t blank = line.find(' ', kTimeBytes + 1);
    message = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    return true;
}

// What the daemon says when it looks at its files, at the levels 4 and 5.
bool TellsOfALoad(std::string_view message) {
    return message == "Configuration reloaded." || message == "Enter event reader loop...";
}

class TailReader {
  public:
    TailReader(LogHealth& health, double recentSince)
        : m_health(health), m_recentSince(recentSince) {
        for (const LossKind& kind : LossKinds()) {
            m_losses.push_back({&kind, 0, 0, 0.0});
        }
    }

    void Read(const std::string& path, std::string_view text) {
        while (!text.empty()) {
            const size_t end = text.find('\n');
            if (end == std::string_view::npos) {
                break;  // the daemon is writing it
            }
            double time = 0.0;
            std::string_view message;
            if (ParseLine(text.substr(0, end), time, message)) {
                Take(path, time, message);
            }
            text.remove_prefix(end + 1);
        }
    }

    void Finish() {
        std::vector<LossHealth> found;
        std::copy_if(m_losses.begin(), m_losses.end(), std::back_inserter(found),
                     [](const LossHealth& loss) { return loss.count != 0; });
        m_health.losses = Known(std::move(found), m_health.path);
    }

  private:
    void Take(const std::string& path, double time, std::string_view message) {
        if (!m_health.firstTime.IsKnown()) {
            m_health.firstTime = Known(time, path);
        }
        m_health.lastTime = Known(time, path);
        if (TellsOfALoad(message)) {
            m_health.reloadTime = Known(time, path);
        }
        const int place = LossKindOf(message);
        if (place < 0) {
            return;
        }
        LossHealth& loss = m_losses[static_cast<size_t>(place)];
        const uint64_t count = LossesOf(*loss.kind, message);
        loss.count += count;
        loss.recentCount += time >= m_recentSince ? count : 0;
        loss.lastTime = time;
    }

    LogHealth& m_health;
    const double m_recentSince;
    std::vector<LossHealth> m_losses;
};

Reading<bool> IsWritten(const std::string& path, const ProcessTable& processes, int daemon) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        return error == ENOENT ? Known(false, path) : Unknown<bool>(path, LookFailure(path, error));
    }
    const ProcessTable::Process* const process = processes.Find(daemon);
    if (process == nullptr) {
        return Unknown<bool>(path, "tarn does not run");
    }
    const std::string source = processes.PathOf(daemon) + "/fd";
    if (!process->isReadable) {
        return Unknown<bool>(source, HoldersHidden());
    }
    const Holders holders = processes.HoldersOf(status, ProcessTable::Access::kWrite);
    return Known(std::any_of(holders.begin(), holders.end(),
                             [daemon](const Holder& holder) { return holder.process == daemon; }),
                 source);
}

}  // namespace

LogHealth LookAtLog(const std::string& path, const ProcessTable& processes, int daemon,
                    double recentSince) {
    LogHealth health;
    health.path = path;
    health.isWritten = IsWritten(path, processes, daemon);
    const std::string none = "the log has no such line";
    health.firstTime = Unknown<double>(path, none);
    health.lastTime = Unknown<double>(path, none);
    health.reloadTime = Unknown<double>(path, none);
    std::string text;
    bool isWhole = false;
    if (!ReadTail(path, text, isWhole)) {
        const std::string reason = LookFailure(path, errno);
        health.firstTime = Unknown<double>(path, reason);
        health.lastTime = Unknown<double>(path, reason);
        health.reloadTime = Unknown<double>(path, reason);
        health.losses = Unknown<std::vector<LossHealth>>(path, reason);
        return health;
    }
    TailReader reader(health, recentSince);
    // The daemon begins a new file at each start and when one is long enough, so what happened a
    // moment ago may be in the former one.
    const std::string former = path + ".001";
    std::string formerText;
    bool isFormerWhole = false;
    if (isWhole && ReadTail(former, formerText, isFormerWhole)) {
        reader.Read(former, formerText);
    }
    reader.Read(path, text);
    reader.Finish();
    return health;
}

}  // namespace tarnctl
