// What a log message costs: next to nothing when its level does not pass, a line otherwise.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "logging/log.h"
#include "logging/log_file.h"

namespace {

using vald::Log;

// The event path has most of its messages at level 5, so this is what each of them costs.
void LogSuppressedWrite(benchmark::State& state) {
    Log::SetLevel(3);
    int number = 7;
    for (auto _ : state) {
        benchmark::DoNotOptimize(number);
        Log::GetInstance()->Write(5, "event %d from %s", number, "10.0.0.1");
    }
}
BENCHMARK(LogSuppressedWrite);

void LogSuppressedStaticCall(benchmark::State& state) {
    Log::SetLevel(3);
    int number = 7;
    for (auto _ : state) {
        benchmark::DoNotOptimize(number);
        Log::Debug("event %d from %s", number, "10.0.0.1");
    }
}
BENCHMARK(LogSuppressedStaticCall);

// The query in front of a call whose arguments would have to be made first.
void LogSuppressedQuery(benchmark::State& state) {
    Log::SetLevel(3);
    int level = 5;
    for (auto _ : state) {
        benchmark::DoNotOptimize(level);
        bool passes = Log::Passes(level);
        benchmark::DoNotOptimize(passes);
    }
}
BENCHMARK(LogSuppressedQuery);

constexpr unsigned kFileBytes = 2000000;

// A directory that goes with the object.
class Folder {
  public:
    Folder() {
        if (mkdtemp(m_path.data()) == nullptr) {
            m_path.clear();
        }
    }
    ~Folder() {
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path);
        }
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    // Empty when there is none.
    const std::string& Path() const { return m_path; }

  private:
    std::string m_path = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
};

// One line into a file, with the rotations that fall due.
void LogFileLine(benchmark::State& state) {
    const Folder folder;
    vald::LogFile file;
    file.Initialize(folder.Path() + "/tarn.log", 3);
    if (!file.SetLimits(kFileBytes, 5)) {
        state.SkipWithError("no log file");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(file.Write(3, "event %d from %s", 7, "10.0.0.1"));
    }
}
BENCHMARK(LogFileLine);

// The system call of such a line, which is the least that it can cost.
void LogBareWrite(benchmark::State& state) {
    static constexpr char kLine[] =
        "2026/11/12 14:12:01.123 T:140123456789012 event 7 from 10.0.0.1\n";
    const Folder folder;
    const int fd = open((folder.Path() + "/bare").c_str(),
                        O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd == -1) {
        state.SkipWithError("no file");
    }
    unsigned size = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, kLine, sizeof(kLine) - 1));
        size += sizeof(kLine) - 1;
        if (size > kFileBytes) {
            size = 0;
            (void)!ftruncate(fd, 0);
        }
    }
    close(fd);
}
BENCHMARK(LogBareWrite);

}  // namespace
