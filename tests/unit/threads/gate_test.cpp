#include "threads/gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class GateTest : public testing::Test {
  protected:
    GateTest() { m_gate.Init(); }
    ~GateTest() override { m_gate.Destroy(); }

    Gate m_gate;
};

TEST(Deadline, TwoSecondsLeaveTheNanosecondsUnchanged) {
    const timespec deadline = DeadlineAfter(timeval{100, 600000}, 2000);
    EXPECT_EQ(102, deadline.tv_sec);
    EXPECT_EQ(600000000, deadline.tv_nsec);
}

TEST(Deadline, FifteenHundredMillisecondsCarryIntoTheSeconds) {
    const timespec deadline = DeadlineAfter(timeval{100, 600000}, 1500);
    EXPECT_EQ(102, deadline.tv_sec);
    EXPECT_EQ(100000000, deadline.tv_nsec);
}

TEST(Deadline, AWholeSecondOfNanosecondsCarries) {
    const timespec deadline = DeadlineAfter(timeval{100, 500000}, 500);
    EXPECT_EQ(101, deadline.tv_sec);
    EXPECT_EQ(0, deadline.tv_nsec);
}

TEST(Deadline, OfZeroMillisecondsIsNow) {
    const timespec deadline = DeadlineAfter(timeval{7, 999999}, 0);
    EXPECT_EQ(7, deadline.tv_sec);
    EXPECT_EQ(999999000, deadline.tv_nsec);
}

TEST(Deadline, FromNowLiesAheadOfTheClock) {
    timeval before{};
    ASSERT_EQ(0, gettimeofday(&before, nullptr));
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
    // In most of the rounds several of them wait already when the gate opens.
    for (int round = 0; round < 50; ++round) {
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
        EXPECT_EQ(4, released);
    }
}

TEST_F(GateTest, ACancelledWaiterLeavesTheMutexFree) {
    m_gate.Close();
    pthread_t waiter{};
    ASSERT_EQ(0, pthread_create(
                     &waiter, nullptr,
                     [](void* gate) -> void* {
                         (void)static_cast<Gate*>(gate)->Wait();
                         return nullptr;
                     },
                     &m_gate));
    ASSERT_EQ(0, pthread_cancel(waiter));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(waiter, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    m_gate.Open(true);  // would block for ever on a mutex that was left locked
    EXPECT_TRUE(m_gate.IsOpen());
}

TEST_F(GateTest, WhileClosedActsOnlyOnAClosedGate) {
    int calls = 0;
    EXPECT_FALSE(m_gate.WhileClosed([&calls] { ++calls; }));
    m_gate.Close();
    EXPECT_TRUE(m_gate.WhileClosed([&calls] { ++calls; }));
    EXPECT_EQ(1, calls);
}

}  // namespace
