#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>

#include "config/config.h"
#include "tarnctl/health/parts.h"

namespace tarnctl {
namespace {

constexpr const char* kDaemonName = "tarn";

double TicksAsSeconds(uint64_t ticks) {
    static const long perSecond = sysconf(_SC_CLK_TCK);
    return static_cast<double>(ticks) / static_cast<double>(perSecond);
}

Reading<int> PidFileNumber(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        const int error = errno;
        return Unknown<int>(path, LookFailure(path, error));
    }
    int number = 0;
    if (!(file >> number) || number <= 0) {
        return Unknown<int>(path, path + " holds no number");
    }
    return Known(number, path);
}

// The name that the kernel shows is that of the program file; a program file of another name that
// was started through a link has it as the last part of its path.
bool IsNamedAsDaemon(const ProcessTable& processes, const ProcessTable::Process& process) {
    if (process.status.name == kDaemonName) {
        return true;
    }
    std::error_code error;
    const auto program =
        std::filesystem::read_symlink(processes.PathOf(process.number) + "/exe", error);
    return !error && program.filename() == kDaemonName;
}

// A daemon in a container or a sandbox has other files under the same names.
bool SeesTheSameFiles(const ProcessTable& processes, int number) {
    struct stat own = {};
    struct stat theirs = {};
    const std::string root = processes.PathOf(number) + "/root";
    if (stat("/", &own) != 0 || stat((root + "/").c_str(), &theirs) != 0) {
        return true;  // it cannot be seen, and then it is taken for the usual case
    }
    return own.st_dev == theirs.st_dev && own.st_ino == theirs.st_ino;
}

std::vector<int> DaemonsAmong(const ProcessTable& processes) {
    std::vector<int> numbers;
    for (const ProcessTable::Process& process : processes.Processes()) {
        if (IsNamedAsDaemon(processes, process) && SeesTheSameFiles(processes, process.number)) {
            numbers.push_back(process.number);
        }
    }
    return numbers;
}

// Of several the one that the PID file names, then the one that reads the alerts, then the first.
int ChosenAmong(const std::vector<int>& candidates, const Reading<int>& pidFile,
                const std::string& alertFifo, const ProcessTable& processes) {
    const auto isCandidate = [&candidates](int number) {
        return std::find(candidates.begin(), candidates.end(), number) != candidates.end();
    };
    if (pidFile.IsKnown() && isCandidate(*pidFile.value)) {
        return *pidFile.value;
    }
    struct stat fifo = {};
    if (stat(alertFifo.c_str(), &fifo) == 0) {
        for (const Holder& reader : processes.HoldersOf(fifo, ProcessTable::Access::kRead)) {
            if (isCandidate(reader.process)) {
                return reader.process;
            }
        }
    }
    return candidates.empty() ? 0 : candidates.front();
}

Reading<uint64_t> MemoryOf(const std::string& folder) {
    const std::string path = folder + "/status";
    std::ifstream file(path);
    std::string word;
    uint64_t kilobytes = 0;
    constexpr uint64_t kKilobyte = 1024;
    while (file >> word) {
        if (word == "VmRSS:" && file >> kilobytes) {
            return Known(kilobytes * kKilobyte, path);
        }
    }
    return Unknown<uint64_t>(path, path + " does not tell the memory");
}

Reading<std::vector<ThreadHealth>> ThreadsOf(const std::string& folder, double bootTime) {
    const std::string path = folder + "/task";
    std::vector<ThreadHealth> threads;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
         entry.increment(error)) {
        ThreadHealth thread;
        const std::string name = entry->path().filename();
        std::from_chars(name.data(), name.data() + name.size(), thread.number);
        ProcessStatus status;
        std::string line;
        std::ifstream file(entry->path() / "stat");
        if (!std::getline(file, line) || !ParseProcessStatus(line, status)) {
            continue;  // it has just ended
        }
        thread.state = status.state;
        thread.cpuSeconds = TicksAsSeconds(status.cpuTicks);
        thread.startTime = bootTime + TicksAsSeconds(status.startTicks);
        threads.push_back(thread);
    }
    if (threads.empty()) {
        return Unknown<std::vector<ThreadHealth>>(path, path + " cannot be read");
    }
    std::sort(threads.begin(), threads.end(),
              [](const ThreadHealth& left, const ThreadHealth& right) {
                  return left.number < right.number;
              });
    return Known(std::move(threads), path);
}

// The words of the daemon's command line.
std::vector<std::string> WordsOf(const std::string& folder) {
    std::vector<std::string> words;
    std::ifstream file(folder + "/cmdline");
    std::string word;
    while (std::getline(file, word, '\0')) {
        words.push_back(word);
    }
    return words;
}

// What follows an option, as "-c FILE" or "-cFILE". The daemon passes over what is empty or begins
// with a dash; the last one counts.
std::string OptionOf(const std::vector<std::string>& words, const std::string& option) {
    std::string found;
    for (size_t at = 1; at < words.size(); ++at) {
        std::string value;
        if (words[at] == option && at + 1 < words.size()) {
            value = words[++at];
        } else if (words[at].starts_with(option)) {
            value = words[at].substr(option.size());
        }
        if (!value.empty() && value.front() != '-') {
            found = value;
        }
    }
    return found;
}

// A relative name counts from the daemon's own folder.
std::string FileOf(const std::string& folder, const std::string& named,
                   const std::string& otherwise) {
    if (named.empty()) {
        return otherwise;
    }
    if (named.front() == '/') {
        return named;
    }
    std::error_code error;
    const auto current = std::filesystem::read_symlink(folder + "/cwd", error);
    return error ? named : (current / named).string();
}

// With the daemon's own parser, but without its way to open a file, which is for writing as well.
bool ReadSettings(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    const bool isOpen = file.is_open();
    while (std::getline(file, line)) {
        if (line.find('=') != std::string::npos) {
            Config::ParseLine(line, Config::kMainFile);
        }
    }
    return isOpen;
}

}  // namespace

DaemonHealth LookAtDaemon(const HealthPlaces& places, const ProcessTable& processes,
                          double bootTime, double now) {
    DaemonHealth health;
    health.pidFileNumber = PidFileNumber(places.pidFile);
    const std::string& proc = places.proc;
    if (!processes.IsThere()) {
        const std::string reason = proc + " shows no processes";
        health.isRunning = Unknown<bool>(proc, reason);
        health.pid = Unknown<int>(proc, reason);
        health.others = Unknown<int>(proc, reason);
        health.startTime = Unknown<double>(proc, reason);
        health.ageSeconds = Unknown<double>(proc, reason);
        health.memoryBytes = Unknown<uint64_t>(proc, reason);
        health.threads = Unknown<std::vector<ThreadHealth>>(proc, reason);
        return health;
    }
    const std::vector<int> candidates = DaemonsAmong(processes);
    const int number = ChosenAmong(candidates, health.pidFileNumber, places.alertFifo, processes);
    const ProcessTable::Process* const process = processes.Find(number);
    health.isRunning = Known(process != nullptr, proc);
    if (process == nullptr) {
        const std::string reason = "tarn does not run";
        health.pid = Unknown<int>(proc, reason);
        health.others = Known(0, proc);
        health.startTime = Unknown<double>(proc, reason);
        health.ageSeconds = Unknown<double>(proc, reason);
        health.memoryBytes = Unknown<uint64_t>(proc, reason);
        health.threads = Unknown<std::vector<ThreadHealth>>(proc, reason);
        return health;
    }
    const std::string folder = processes.PathOf(number);
    const double startTime = bootTime + TicksAsSeconds(process->status.startTicks);
    health.pid = Known(number, folder + "/stat");
    health.others = Known(static_cast<int>(candidates.size()) - 1, proc);
    health.startTime = Known(startTime, folder + "/stat");
    health.ageSeconds = Known(std::max(0.0, now - startTime), folder + "/stat");
    health.memoryBytes = MemoryOf(folder);
    health.threads = ThreadsOf(folder, bootTime);
    return health;
}

DaemonSettings LookAtSettings(const HealthPlaces& places, const ProcessTable& processes,
                              int daemon) {
    DaemonSettings settings;
    const std::string folder = processes.PathOf(daemon);
    const std::vector<std::string> words =
        daemon == 0 ? std::vector<std::string>() : WordsOf(folder);
    settings.configFile = FileOf(folder, OptionOf(words, "-c"), places.configFile);
    settings.eventFile = FileOf(folder, OptionOf(words, "-n"), places.eventFile);
    (void)ReadSettings(places.stateFile);  // most machines have none
    const bool isRead = ReadSettings(settings.configFile);
    settings.logFile = places.logFile.value_or(Config::s_logFile);
    settings.logLevel = Config::s_logLevel;
    settings.logBytes = static_cast<uint64_t>(Config::s_logMaxFileSize.load());
    settings.channel =
        Known(places.channel.value_or(Config::s_engineCrm),
              places.channel ? "--channel"
              : isRead       ? settings.configFile
                             : "the default, since " + settings.configFile + " cannot be read");
    return settings;
}

}  // namespace tarnctl
