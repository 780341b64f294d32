// The log in a signal handler: it may interrupt the allocator, so no message may allocate.

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "logging/log.h"
#include "logging/log_at.h"
#include "support/file_text.h"
#include "support/temp_dir.h"
#include "unit/logging/log_peer.h"
#include "unit/logging/malloc_count.h"
#include "unit/logging/syslog_stand_in.h"

namespace {

using vald::Log;

constexpr unsigned kWatchdogSeconds = 120;

class LogHandler : public testing::Test {
  protected:
    LogHandler() { Reset(); }
    ~LogHandler() override { Reset(); }
    static void Reset() {
        LogPeer::Reset();
        syslog_stand_in::Clear();
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("tarn.log");
};

using LogAllocation = LogHandler;

TEST_F(LogAllocation, NoneForTheFirstLineNorForOnesThatRotate) {
    if (!MallocIsCounted()) {
        GTEST_SKIP() << "a sanitizer has an allocator of its own";
    }
    Log* const log = Log::GetInstance();
    log->Open("tarn", m_path.c_str(), Log::kDebug, 1, 10);
    const uint64_t before = MallocCount();
    for (int i = 0; i < 30; ++i) {
        Log::Error("Received %s signal", "INT");
        Log::Debug("Received signal %d", i);
        log->Write(Log::kWarning, "line %d of %s", i, m_path.c_str());
    }
    EXPECT_EQ(before, MallocCount());
    EXPECT_TRUE(std::filesystem::exists(m_path + ".009")) << "every line rotated";
}

// In a process of its own: nothing has used the local time there yet.
TEST_F(LogAllocation, NoneForTheFirstLineOfAProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const bool counted = MallocIsCounted();
            Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1000, 3);
            const uint64_t before = MallocCount();
            Log::Error("Received INT signal");
            _exit(!counted || before == MallocCount() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    GTEST_FLAG_SET(death_test_style, "fast");
}

TEST_F(LogAllocation, NoneOnTheConsolePath) {
    if (!MallocIsCounted()) {
        GTEST_SKIP() << "a sanitizer has an allocator of its own";
    }
    testing::internal::CaptureStderr();
    const uint64_t before = MallocCount();
    Log::Error("Received INT signal");
    Log::WriteConsole(Log::kError, "Received signal %d", 12);
    const uint64_t after = MallocCount();
    EXPECT_EQ("Error: Received INT signal\nError: Received signal 12\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(before, after);
}

TEST_F(LogAllocation, NoneForACallThatCarriesItsPosition) {
    if (!MallocIsCounted()) {
        GTEST_SKIP() << "a sanitizer has an allocator of its own";
    }
    Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1, 3);
    const std::string function(300, 'f');
    const uint64_t before = MallocCount();
    for (const int level : {1, 2, 3, 4, 5}) {
        LogAt(level, 10, function.c_str(), "%s", m_path.c_str());
    }
    EXPECT_EQ(before, MallocCount());
}

void LogHangup(int) {
    Log::Debug("Received HUP signal");
}

// The thread is in the allocator most of the time, and every line that its handler writes rotates
// the files. A handler that waits for the allocator's lock waits forever.
TEST_F(LogHandler, OutlivesAStormOfSignalsInsideTheAllocatorWithARotationAtEveryLine) {
    EXPECT_EXIT(
        {
            alarm(kWatchdogSeconds);
            Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1, 3);
            struct sigaction action {};
            action.sa_handler = LogHangup;
            sigaction(SIGHUP, &action, nullptr);
            static std::atomic<bool> s_done{false};
            const pthread_t target = pthread_self();
            std::thread storm([target] {
                sigset_t all;
                sigfillset(&all);
                pthread_sigmask(SIG_BLOCK, &all, nullptr);
                for (int i = 0; i < 5000; ++i) {
                    pthread_kill(target, SIGHUP);
                    usleep(20);
                }
                s_done = true;
            });
            while (!s_done) {
                void* volatile memories[64];
                size_t size = 16;
                for (void* volatile& memory : memories) {
                    memory = std::malloc(size += 24);
                }
                for (void* volatile& memory : memories) {
                    std::free(memory);
                }
            }
            storm.join();
            _exit(std::filesystem::exists(m_path + ".002") ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
