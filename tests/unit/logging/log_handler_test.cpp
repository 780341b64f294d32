// The log in a signal handler: it may interrupt the allocator, so no message may allocate.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "logging/log.h"
#include "logging/log_at.h"
#include "logging/log_guards.h"
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

std::atomic<int> s_hangups{0};  // that were logged

void LogHangup(int signal, siginfo_t* info, void*) {
    if (HoldBack(signal, info)) {
        return;
    }
    Log::Debug("Received HUP signal");
    s_hangups.fetch_add(1, std::memory_order_relaxed);
}

void CatchHangups() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &LogHangup;
    sigaction(SIGHUP, &action, nullptr);
}

// Sends hangups to the calling thread for as long as it lives.
class Storm {
  public:
    explicit Storm(useconds_t pause) {
        m_thread = std::thread([this, target = pthread_self(), pause] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            for (; !m_over || m_sent < kLeast; ++m_sent) {
                pthread_kill(target, SIGHUP);
                usleep(pause);
            }
        });
    }
    ~Storm() {
        m_over = true;
        m_thread.join();
    }

    [[nodiscard]] bool HasBlown() const { return m_sent >= kLeast; }

  private:
    static constexpr int kLeast = 3000;
    std::atomic<bool> m_over{false};
    std::atomic<int> m_sent{0};
    std::thread m_thread;
};

// The thread is in the allocator most of the time, and every line that its handler writes rotates
// the files. A handler that waits for the allocator's lock waits forever.
TEST_F(LogHandler, OutlivesAStormOfSignalsInsideTheAllocatorWithARotationAtEveryLine) {
    EXPECT_EXIT(
        {
            alarm(kWatchdogSeconds);
            Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1, 3);
            CatchHangups();
            const Storm storm(20);
            while (!storm.HasBlown()) {
                void* volatile memories[64];
                size_t size = 16;
                for (void* volatile& memory : memories) {
                    memory = std::malloc(size += 24);
                }
                for (void* volatile& memory : memories) {
                    std::free(memory);
                }
            }
            _exit(std::filesystem::exists(m_path + ".002") ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The thread is in the log all of the time. A handler that comes in between writes into the line
// that is being built, and one that waits for the file waits forever.
TEST_F(LogHandler, NeitherTearsNorLosesALineWhenAStormOfSignalsStrikesInsideTheLog) {
    alarm(kWatchdogSeconds);
    Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1000000000, 2);
    CatchHangups();
    s_hangups = 0;
    int lines = 0;
    {
        const Storm storm(5);
        for (; !storm.HasBlown(); ++lines) {
            Log::GetInstance()->Write(Log::kDebug, "line %d of the thread.", lines);
        }
    }
    signal(SIGHUP, SIG_DFL);
    alarm(0);
    const std::regex form(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} T:\d{2,} (.*))");
    std::istringstream in(ReadFile(m_path));
    int next = 0;
    int hangups = 0;
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        if (match[1] == "Received HUP signal") {
            ++hangups;
        } else {
            ASSERT_EQ("line " + std::to_string(next++) + " of the thread.", match[1]);
        }
    }
    EXPECT_EQ(lines, next);
    EXPECT_EQ(s_hangups, hangups);
    EXPECT_GT(hangups, 0);
}

// A full pipe holds the write of a line up, and each signal interrupts it.
TEST_F(LogHandler, LosesNoLineWhenASignalInterruptsItsWrite) {
    alarm(kWatchdogSeconds);
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    Log::GetInstance()->Open("tarn", m_path.c_str(), Log::kDebug, 1000000000, 1);
    CatchHangups();
    s_hangups = 0;
    const int pipe = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(-1, pipe);
    ASSERT_NE(-1, fcntl(pipe, F_SETPIPE_SZ, 4096));
    std::string text;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        char piece[200];
        for (bool last = false;; last = done) {
            const ssize_t count = read(pipe, piece, sizeof piece);
            if (count > 0) {
                text.append(piece, static_cast<size_t>(count));
            } else if (last) {
                break;
            }
            usleep(50);
        }
    });
    int lines = 0;
    {
        const Storm storm(20);
        for (; !storm.HasBlown(); ++lines) {
            Log::GetInstance()->Write(Log::kDebug, "line %d of the thread.", lines);
        }
    }
    signal(SIGHUP, SIG_DFL);
    done = true;
    reader.join();
    close(pipe);
    alarm(0);
    std::istringstream in(text);
    int next = 0;
    int hangups = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.ends_with("Received HUP signal")) {
            ++hangups;
        } else {
            ASSERT_TRUE(line.ends_with(" line " + std::to_string(next++) + " of the thread."))
                << line;
        }
    }
    EXPECT_EQ(lines, next);
    EXPECT_EQ(s_hangups, hangups);
    EXPECT_GT(hangups, 0);
}

}  // namespace
