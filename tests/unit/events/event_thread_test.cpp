#include "events/event_thread.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "config/config.h"
#include "events/event_bridge.h"
#include "logging/log.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"
#include "support/private_channel.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr unsigned kLongMs = 60000;

// A bridge in multiple thread mode on a CRM channel of this test process's own.
class EventThreadTest : public ::testing::Test {
  protected:
    EventThreadTest() : m_bridge(EventBridge::GetInstance()) {}
    ~EventThreadTest() override { m_bridge->Release(); }

    void InitializeBridge() { ASSERT_EQ(0, m_bridge->Initialize()); }

    PrivateChannel m_channel;
    EventBridge* m_bridge;
};

TEST_F(EventThreadTest, StopEndsAThreadThatWaitsInTheBridge) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.AwaitBegun(kLongMs));
    const auto start = steady_clock::now();
    // A stop that comes before the body has cleared the flag is lost, so ask until it is heard.
    do {
        EXPECT_EQ(1, thread.Stop());
    } while (!thread.Join(1500, nullptr));
    EXPECT_LT(steady_clock::now() - start, seconds(10));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
}

TEST_F(EventThreadTest, ExitsWithTwoWhenTheBridgeIsNotInitialised) {
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ(EventThread::kExitBridgeRefused, thread.ExitCode());
}

TEST_F(EventThreadTest, WorksASecondTimeAfterAStop) {
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    InitializeBridge();
    ASSERT_TRUE(thread.Start(false));
    do {
        thread.Stop();
    } while (!thread.Join(1500, nullptr));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
}

TEST_F(EventThreadTest, SuspendsAndResumes) {
    InitializeBridge();
    EventThread thread("eventthread", 0, 0);
    EXPECT_FALSE(thread.WaitSuspended(0));
    ASSERT_TRUE(thread.Start(false));
    thread.Suspend();
    ASSERT_TRUE(thread.WaitSuspended(kLongMs));
    EXPECT_TRUE(thread.IsRunning());
    thread.Resume();
    do {
        thread.Stop();
    } while (!thread.Join(1500, nullptr));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
}

TEST_F(EventThreadTest, StopWakesASuspendedThreadWhichLogsThatItResumed) {
    InitializeBridge();
    const LogCapture log(5);
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    thread.Suspend();
    ASSERT_TRUE(thread.WaitSuspended(kLongMs));
    thread.Stop();
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_EQ(EventThread::kExitStopped, thread.ExitCode());
    EXPECT_TRUE(log.Contains(" suspended."));
    EXPECT_TRUE(log.Contains(" resumed."));
    EXPECT_TRUE(log.Contains(" exiting: 0"));
}

TEST_F(EventThreadTest, KeepsCpuZeroUnbound) {
    const LogCapture log(5);
    EventThread thread("eventthread", 0, 0);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
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
    const LogCapture log(5);
    EventThread thread("eventthread", 0, cpu);
    ASSERT_TRUE(thread.Start(false));
    ASSERT_TRUE(thread.Join(kLongMs, nullptr));
    EXPECT_TRUE(log.Contains("Assigned event thread "));
    EXPECT_TRUE(log.Contains(" to CPU " + std::to_string(cpu)));
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
    // Had a reference been kept, the last Release would not have closed the bridge.
    m_bridge->Finalize();
    EXPECT_EQ(-1, m_bridge->ProcessEventQueue(0, 0));
}

TEST_F(EventThreadTest, ForceQuitLeavesAnIdleThreadAlone) {
    EventThread thread("eventthread", 0, 0);
    thread.ForceQuit();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Settle(0));
}

}  // namespace
