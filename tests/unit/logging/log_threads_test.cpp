// Many threads in the log at once. Lines of one thread keep their order and none is torn.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "logging/log.h"
#include "logging/log_file.h"
#include "support/file_text.h"
#include "support/temp_dir.h"
#include "unit/logging/log_peer.h"
#include "unit/logging/syslog_stand_in.h"

namespace {

using vald::Log;

constexpr int kThreads = 8;
constexpr int kLines = 400;

class LogThreads : public testing::Test {
  protected:
    LogThreads() { Reset(); }
    ~LogThreads() override { Reset(); }
    static void Reset() {
        syslog_stand_in::Clear();
        LogPeer::Reset();
        syslog_stand_in::Clear();
    }

    static void RunAll(void (*body)(int number)) {
        std::vector<std::thread> threads;
        for (int number = 0; number < kThreads; ++number) {
            threads.emplace_back(body, number);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("tarn.log");
};

// Every line of one thread carries its number and counts up, and is filled with its letter.
void LogCounted(int number) {
    const std::string filling(static_cast<size_t>(20 * number), static_cast<char>('a' + number));
    for (int i = 0; i < kLines; ++i) {
        Log::GetInstance()->Write(4, "thread %d line %d %s.", number, i, filling.c_str());
    }
}

// Reads one file of lines and takes each as the next of its thread.
void ExpectOrderedLines(const std::string& path, std::map<int, int>& next) {
    static const std::regex form(
        R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} T:\d{2,} thread (\d) line (\d+) ([a-h]*)\.)");
    std::istringstream in(ReadFile(path));
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        const int number = std::stoi(match[1]);
        EXPECT_EQ(std::stoi(match[2]), next[number]++);
        EXPECT_EQ(std::string(static_cast<size_t>(20 * number), static_cast<char>('a' + number)),
                  match[3]);
    }
}

TEST_F(LogThreads, NeverTearALine) {
    Log::GetInstance()->Open("tarn", m_path.c_str(), 4, 100000000, 2);
    RunAll(LogCounted);
    std::map<int, int> next;
    ExpectOrderedLines(m_path, next);
    for (int number = 0; number < kThreads; ++number) {
        EXPECT_EQ(kLines, next[number]);
    }
}

TEST_F(LogThreads, LoseNoLineAcrossRotations) {
    Log::GetInstance()->Open("tarn", m_path.c_str(), 4, 20000, 100);
    RunAll(LogCounted);
    std::map<int, int> next;
    for (int i = 99; i >= 1; --i) {
        char ending[8];
        snprintf(ending, sizeof ending, ".%03d", i);
        ExpectOrderedLines(m_path + ending, next);
    }
    ASSERT_TRUE(std::filesystem::exists(m_path + ".001"));
    ExpectOrderedLines(m_path, next);
    for (int number = 0; number < kThreads; ++number) {
        EXPECT_EQ(kLines, next[number]);
    }
}

TEST_F(LogThreads, MayLogWhileTheLevelChanges) {
    Log::GetInstance()->Open("tarn", m_path.c_str(), 4, 100000000, 2);
    static std::atomic<bool> s_done;
    s_done = false;
    std::thread changer([] {
        while (!s_done) {
            Log::SetLevel(1);
            Log::SetLevel(5);
        }
    });
    RunAll([](int number) {
        for (int i = 0; i < kLines; ++i) {
            Log::Error("thread %d line %d .", number, i);
            Log::Debug("thread %d is busy", number);
        }
    });
    s_done = true;
    changer.join();
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), syslog_stand_in::Lines().size());
}

TEST_F(LogThreads, LeaveNoLockBehindWhenCancelledInsideTheLog) {
    Log::GetInstance()->Open("tarn", m_path.c_str(), 4, 100000000, 2);
    syslog_stand_in::Inside([] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    });
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         Log::GetInstance()->Write(1, "whole");
                         pthread_testcancel();
                         return nullptr;
                     },
                     nullptr));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    syslog_stand_in::Inside(nullptr);
    Log::GetInstance()->Write(1, "next");
    const std::string content = ReadFile(m_path);
    EXPECT_NE(std::string::npos, content.find("whole\n"));
    EXPECT_NE(std::string::npos, content.find("next\n"));
}

}  // namespace
