// What a log message costs: next to nothing when its level does not pass, a line otherwise.

#include <benchmark/benchmark.h>
#include <stdlib.h>

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

// One line into a file, with the rotations that fall due.
void LogFileLine(benchmark::State& state) {
    std::string folder = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        state.SkipWithError("no directory for the log file");
        return;
    }
    {
        vald::LogFile file;
        file.Initialize(folder + "/tarn.log", 3);
        if (!file.SetLimits(2000000, 5)) {
            state.SkipWithError("no log file");
        }
        for (auto _ : state) {
            benchmark::DoNotOptimize(file.Write(3, "event %d from %s", 7, "10.0.0.1"));
        }
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(LogFileLine);

}  // namespace
