#include "threads/gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class GateTest : public ::testing::Test {
  protected:
    GateTest() { m_gate.Init(); }
    ~GateTest() override { m_gate.Destroy(); }

    Gate m_gate;
};

TEST(Deadline, TwoSecondsLeaveTheNanosecondsUnchanged) {
    const timespec deadline = DeadlineAfter(timeval{100, 600000}, 2000);
    EXPECT_EQ(deadline.tv_sec, 102);
    EXPECT_EQ(deadline.tv_nsec, 600000000);
}

TEST(Deadline, FifteenHundredMillisecondsCarryIntoTheSeconds) {
    const timespec deadline = DeadlineAfter(timeval{100, 600000}, 1500);
    EXPECT_EQ(deadline.tv_sec, 102);
    EXPECT_EQ(deadline.tv_nsec, 100000000);
}

TEST(Deadline, AWholeSecondOfNanosecondsCarries) {
    const timespec deadline = DeadlineAfter(timeval{100, 500000}, 500);
    EXPECT_EQ(deadline.tv_sec, 101);
    EXPECT_EQ(deadline.tv_nsec, 0);
}

TEST(Deadline, OfZeroMillisecondsIsNow) {
    const timespec deadline = DeadlineAfter(timeval{7, 999999}, 0);
    EXPECT_EQ(deadline.tv_sec, 7);
    EXPECT_EQ(deadline.tv_nsec, 999999000);
}

TEST(Deadline, FromNowLiesAheadOfTheClock) {
    timeval before{};
    ASSERT_EQ(gettimeofday(&before, nullptr), 0);
    const timespec deadline = DeadlineFromNow(2000);
    EXPECT_GE(deadline.tv_sec, before.tv_sec + 2);
    EXPECT_LE(deadline.tv_sec, before.tv_sec + 4);
}

TEST_F(GateTest, IsOpenAtFirst) {
    EXPECT_TRUE(m_gate.IsOpen());
    EXPECT_TRUE(m_gate.Wait());
    EXPECT_TRUE(m_gate.Wait(0));
}

TEST_F(GateTest, TimesOutWhileClosed) {
    m_gate.Close();
    EXPECT_FALSE(m_gate.IsOpen());
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_gate.Wait(30));
    EXPECT_GE(steady_clock::now() - start, milliseconds(25));
}

TEST_F(GateTest, OpeningReleasesATimedWaiter) {
    m_gate.Close();
    std::thread opener([this] { m_gate.Open(false); });
    EXPECT_TRUE(m_gate.Wait(60000));
    opener.join();
}

TEST_F(GateTest, BroadcastReleasesEveryWaiter) {
    m_gate.Close();
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([this, &released] {
            if (m_gate.Wait()) {
                ++released;
            }
        });
    }
    m_gate.Open(true);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(released, 4);
}

TEST_F(GateTest, ACancelledWaiterLeavesTheMutexFree) {
    m_gate.Close();
    pthread_t waiter{};
    ASSERT_EQ(pthread_create(
                  &waiter, nullptr,
                  [](void* gate) -> void* {
                      (void)static_cast<Gate*>(gate)->Wait();
                      return nullptr;
                  },
                  &m_gate),
              0);
    ASSERT_EQ(pthread_cancel(waiter), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(waiter, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    m_gate.Open(true);  // would block for ever on a mutex that was left locked
    EXPECT_TRUE(m_gate.IsOpen());
}

TEST_F(GateTest, WhileClosedActsOnlyOnAClosedGate) {
    int calls = 0;
    EXPECT_FALSE(m_gate.WhileClosed([&calls] { ++calls; }));
    m_gate.Close();
    EXPECT_TRUE(m_gate.WhileClosed([&calls] { ++calls; }));
    EXPECT_EQ(calls, 1);
}

}  // namespace
