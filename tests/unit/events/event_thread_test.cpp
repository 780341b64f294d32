#include "events/event_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/config.h"
#include "events/event_bridge.h"
#include "logging/log.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"
#include "support/private_channel.h"
#include "unit/events/bridge_fixture.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr unsigned kLongMs = 60000;

// A bridge in multiple thread mode on a CRM channel of this test process's own.
class EventThreadTest : public EventBridgeFixture {
  protected:
    void InitializeBridge() { InitializeForThreads(); }

    // A stop that comes before the body has cleared the flag is lost, so ask until it is heard.
    static void StopAndJoin(EventThread& thread) {
        do {
            EXPECT_EQ(1, thread.Stop());
        } while (!thread.Join(1500, nullptr));
    }

    void ExpectOneReference() { EXPECT_EQ(1U, EventBridgePeer::References(*m_bridge)); }

    // Hands one event over and waits until it has found its end: the loop runs.
    void ExpectTheLoopToWork() {
        const int before = TestAlert::s_deleted;
        ASSERT_EQ(0, m_bridge->EnqueueEvent(new TestAlert(kKnown)));
        const auto limit = steady_clock::now() + std::chrono::milliseconds(kLongMs);
        while (TestAlert::s_deleted == before && steady_clock::now() < limit) {
            sched_yield();
        }
        EXPECT_EQ(before + 1, TestAlert::s_deleted);
    }
};

std::vector<int> CpusOf(pthread_t thread) {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    EXPECT_EQ(0, pthread_getaffinity_np(thread, sizeof mask, &mask));
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &mask)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

// The blocked signals of every thread of this process but the main one, as /proc shows them.
std::vector<uint64_t> BlockedInOtherThreads() {
    std::vector<uint64_t> masks;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                masks.push_back(std::stoull(line.substr(7), nullptr, 16));
            }
        }
    }
    return masks;
}

TEST_F(EventThreadTest, StopEndsAThreadThatWaitsInTheBridge) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ExpectTheLoopToWork();
    // The loop has begun, so the stop is heard, within the second that the bridge waits.
    const auto start = steady_clock::now();
    EXPECT_EQ(1, thread.Stop());
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(2500));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
}

TEST_F(EventThreadTest, HearsAStopAfterEachEvent) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    auto* first = new TestAlert(kKnown);
    first->m_beforeReport = [&thread] { thread.Stop(); };
    ASSERT_EQ(0, m_bridge->EnqueueEvent(first));
    ASSERT_EQ(0, m_bridge->EnqueueEvent(new TestAlert(kKnown)));
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
    EXPECT_EQ(1, TestAlert::s_reportsMade) << "the second event stays in the ring";
}

TEST_F(EventThreadTest, ExitsWithTwoWhenTheBridgeIsNotInitialised) {
    const auto lines = LevelledMessages([] {
        EventThread thread("eventthread", 0, 0);
        ASSERT_TRUE(thread.Start(false));
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
        EXPECT_EQ(EventThread::kExitBridgeRefused, thread.ExitCode());
    });
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(),
                            "1 EventBridge::ProcessEventQueue() is called before Initialize()."))
        << "the bridge is asked once";
}

TEST_F(EventThreadTest, LogsItsLifeAtLevelFive) {
    std::string self;
    const auto lines = LevelledMessages([&self] {
        EventThread thread("eventthread", 0, 0);
        ASSERT_TRUE(thread.Start(false));
        self = std::to_string(thread.Handle());
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    });
    const auto ends = [&lines](const std::string& start, const std::string& end) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.starts_with(start) && line.ends_with(end);
        });
    };
    EXPECT_EQ(1, ends("5 event thread ", " starting."));
    EXPECT_EQ(1, ends("5 Event thread ", " exiting: 2"));
}

TEST_F(EventThreadTest, WorksASecondTimeAfterAStop) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(thread.Start(false));
        ExpectTheLoopToWork();
        StopAndJoin(thread);
        EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
    }
}

TEST_F(EventThreadTest, WorksASecondTimeAfterTheBridgeRefused) {
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    InitializeBridge();
    ASSERT_TRUE(thread.Start(false));
    ExpectTheLoopToWork();
    StopAndJoin(thread);
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
}

TEST_F(EventThreadTest, GivesItsReferenceOfTheBridgeBackAtItsEnd) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ExpectTheLoopToWork();
    StopAndJoin(thread);
    ExpectOneReference();
}

TEST_F(EventThreadTest, HoldsAReferenceOfTheBridgeWhileItRuns) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ExpectTheLoopToWork();
    EXPECT_EQ(2U, EventBridgePeer::References(*m_bridge));
    StopAndJoin(thread);
}

TEST_F(EventThreadTest, BlocksAndIgnoresTheSignalOfTheStackReport) {
    struct sigaction former {};
    sigaction(SIGUSR2, nullptr, &former);
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ExpectTheLoopToWork();
    const uint64_t bit = uint64_t{1} << (SIGUSR2 - 1);
    const std::vector<uint64_t> masks = BlockedInOtherThreads();
    EXPECT_TRUE(
        std::any_of(masks.begin(), masks.end(), [](uint64_t mask) { return (mask & bit) != 0; }));
    struct sigaction action {};
    sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(SIG_IGN, action.sa_handler);
    StopAndJoin(thread);
    sigaction(SIGUSR2, &former, nullptr);
}

TEST_F(EventThreadTest, SuspendsAndResumes) {
    InitializeBridge();
    const LogCapture log(vald::Log::kDebug);
    EventThread thread("eventthread", 0, 0);
    EXPECT_FALSE(thread.WaitSuspended(0));
    ASSERT_TRUE(thread.Start(false));
    thread.Suspend();
    ASSERT_TRUE(thread.WaitSuspended(kLongMs));
    EXPECT_TRUE(thread.IsRunning());
    ASSERT_EQ(0, m_bridge->EnqueueEvent(new TestAlert(kKnown)));
    EXPECT_FALSE(thread.Join(50, nullptr));
    EXPECT_EQ(0, TestAlert::s_deleted) << "a suspended thread takes no event";
    thread.Resume();
    while (TestAlert::s_deleted == 0) {
        sched_yield();
    }
    EXPECT_FALSE(thread.WaitSuspended(0)) << "it has left its suspended state";
    ExpectTheLoopToWork();
    StopAndJoin(thread);
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
    const auto lines = log.Messages();
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.ends_with(" suspended.");
              }));
}

TEST_F(EventThreadTest, StopWakesASuspendedThreadWhichLogsThatItResumed) {
    InitializeBridge();
    std::string self;
    const auto lines = LevelledMessages([&self] {
        EventThread thread("eventthread", 0, 0);
        ASSERT_TRUE(thread.Start(false));
        self = std::to_string(thread.Handle());
        thread.Suspend();
        ASSERT_TRUE(thread.WaitSuspended(kLongMs));
        thread.Stop();
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
        EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
    });
    for (const char* what : {" suspended.", " resumed.", " exiting: 0"}) {
        EXPECT_THAT(lines, testing::Contains("5 Event thread " + self + what));
    }
}

TEST_F(EventThreadTest, SuspendedThreadThatIsStoppedTakesNoMoreEvents) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    thread.Suspend();
    ASSERT_TRUE(thread.WaitSuspended(kLongMs));
    ASSERT_EQ(0, m_bridge->EnqueueEvent(new TestAlert(kKnown)));
    thread.Stop();
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ(0, TestAlert::s_reportsMade) << "the event stays in the ring";
}

TEST_F(EventThreadTest, KeepsCpuZeroUnbound) {
    InitializeBridge();
    const LogCapture log(vald::Log::kDebug);
    for (const int cpu : {0, -1}) {
        EventThread thread("eventthread", 0, cpu);
        ASSERT_TRUE(thread.Start(false));
        ExpectTheLoopToWork();
        EXPECT_EQ(CpusOf(pthread_self()), CpusOf(thread.Handle()));
        StopAndJoin(thread);
    }
    EXPECT_TRUE(log.Contains("event thread "));
    EXPECT_FALSE(log.Contains("CPU"));
}

TEST_F(EventThreadTest, RunsOnWhenTheCpuDoesNotExist) {
    const auto lines = LevelledMessages([] {
        EventThread thread("eventthread", 0, 1023);
        ASSERT_TRUE(thread.Start(false));
        ASSERT_TRUE(thread.Join(kLongMs, nullptr));
        EXPECT_EQ(EventThread::kExitBridgeRefused, thread.ExitCode());
    });
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.starts_with("2 Unable to assign event thread ") &&
                         line.ends_with(" to CPU 1023");
              }));
}

TEST_F(EventThreadTest, BindsToACpuAboveZero) {
    cpu_set_t allowed;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof(allowed), &allowed));
    int cpu = CPU_SETSIZE - 1;
    while (cpu > 0 && !CPU_ISSET(static_cast<size_t>(cpu), &allowed)) {
        --cpu;
    }
    if (cpu == 0) {
        GTEST_SKIP() << "this process may use no CPU above 0";
    }
    InitializeBridge();
    const auto lines = LevelledMessages([this, cpu] {
        EventThread thread("eventthread", 0, cpu);
        ASSERT_TRUE(thread.Start(false));
        ExpectTheLoopToWork();
        EXPECT_EQ(std::vector<int>{cpu}, CpusOf(thread.Handle()));
        StopAndJoin(thread);
    });
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [cpu](const std::string& line) {
                  return line.starts_with("5 Assigned event thread ") &&
                         line.ends_with(" to CPU " + std::to_string(cpu));
              }));
}

TEST_F(EventThreadTest, ForceQuitEndsAWaitingThreadAndGivesItsReferenceBack) {
    InitializeBridge();
    for (int i = 0; i < 200; ++i) {
        EventThread thread("eventthread", 0, 0);
        ASSERT_TRUE(thread.Start(false));
        ASSERT_TRUE(thread.AwaitBegun(kLongMs));
        thread.ForceQuit();
        ASSERT_TRUE(thread.Settle(0));
        EXPECT_FALSE(thread.IsRunning());
    }
    ExpectOneReference();
}

TEST_F(EventThreadTest, ForceQuitLeavesAnIdleThreadAlone) {
    EventThread thread("eventthread", 0, 0);
    thread.ForceQuit();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Settle(0));
}

}  // namespace
