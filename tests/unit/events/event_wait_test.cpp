// How long the bridge, and the thread that drains it, wait for an event. A busy machine stretches
// each single wait, so the shortest of several is what counts.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "events/event_thread.h"
#include "unit/events/bridge_fixture.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kAttempts = 10;
constexpr milliseconds kNearlyASecond{900};
constexpr milliseconds kLessThanTwo{1900};

class EventWait : public EventBridgeFixture {};

TEST_F(EventWait, LastsTheSecondsThatAreAskedFor) {
    InitializeForThreads();
    for (const unsigned seconds : {0U, 1U, 2U}) {
        Clock::duration shortest = Clock::duration::max();
        const milliseconds limit(1000 * seconds + 900);
        for (int attempt = 0; attempt < kAttempts && shortest >= limit; ++attempt) {
            const auto begin = Clock::now();
            EXPECT_EQ(0, m_bridge->ProcessEventQueue(1, seconds));
            shortest = std::min(shortest, Clock::now() - begin);
        }
        EXPECT_LE(milliseconds(1000 * seconds) - milliseconds(10), shortest);
        EXPECT_GT(limit, shortest);
    }
}

// The seconds of processor time that this process has taken.
double ProcessorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The time from an event to the end of a thread that is stopped while it waits for the next one.
Clock::duration TimeToStop(EventBridge& bridge, EventThread& thread) {
    const int deleted = TestAlert::s_deleted;
    EXPECT_TRUE(thread.Start(false));
    EXPECT_EQ(0, bridge.ProcessEvent(new TestAlert(1000)));
    while (TestAlert::s_deleted == deleted) {
        std::this_thread::yield();
    }
    const auto begin = Clock::now();
    std::this_thread::sleep_for(milliseconds(20));  // the thread goes on to its wait
    thread.Stop();
    EXPECT_TRUE(thread.Join(60000, nullptr));
    return Clock::now() - begin;
}

TEST_F(EventWait, OfTheThreadIsOneSecond) {
    InitializeForThreads();
    EventThread thread("eventthread", 0, 0);
    bool isOneSecond = false;
    for (int attempt = 0; attempt < kAttempts && !isOneSecond; ++attempt) {
        const Clock::duration time = TimeToStop(*m_bridge, thread);
        isOneSecond = time > kNearlyASecond && time < kLessThanTwo;
    }
    EXPECT_TRUE(isOneSecond);
}

TEST_F(EventWait, OfTheThreadTakesNoProcessorTime) {
    InitializeForThreads();
    EventThread thread("eventthread", 0, 0);
    const double before = ProcessorSeconds();
    (void)TimeToStop(*m_bridge, thread);
    EXPECT_GT(0.3, ProcessorSeconds() - before) << "a second of waiting";
}

}  // namespace
