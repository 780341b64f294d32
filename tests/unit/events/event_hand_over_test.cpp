// How the two threads of the bridge meet: when a sleeping consumer is woken, when the producer
// gives the processor up, and who deletes the events that are done.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/log_capture.h"
#include "unit/events/bridge_fixture.h"

namespace {

using HandOver = EventBridge::HandOver;
using std::chrono::milliseconds;

std::atomic<int> s_yields{0};

}  // namespace

extern "C" int sched_yield() noexcept {
    ++s_yields;
    return static_cast<int>(syscall(SYS_sched_yield));
}

namespace {

class EventHandOver : public EventBridgeFixture {
  protected:
    void SetUp() override {
        EventBridgeFixture::SetUp();
        InitializeForThreads();
    }

    void Queue(int events, HandOver handOver) {
        for (int i = 0; i < events; ++i) {
            ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown), handOver));
        }
    }

    // A consumer that takes one event, and is asleep for want of one.
    class Sleeper {
      public:
        Sleeper(EventBridge& bridge, uint32_t seconds)
            : m_thread([this, &bridge, seconds] {
                  m_result = bridge.ProcessEventQueue(1, seconds);
                  m_isAwake = true;
              }) {
            while (!EventBridgePeer::ConsumerSleeps(bridge) && !m_isAwake) {
                std::this_thread::yield();
            }
        }
        ~Sleeper() { m_thread.join(); }
        Sleeper(const Sleeper&) = delete;
        Sleeper& operator=(const Sleeper&) = delete;

        [[nodiscard]] bool IsAwake() const { return m_isAwake; }
        [[nodiscard]] int Result() {
            while (!m_isAwake) {
                std::this_thread::yield();
            }
            return m_result;
        }

      private:
        std::atomic<bool> m_isAwake{false};
        int m_result = -1;
        std::thread m_thread;
    };

    static constexpr uint32_t kLong = 20;  // seconds, far longer than a wake-up takes
};

TEST_F(EventHandOver, EventThatIsNoneOfABatchWakesTheConsumer) {
    Sleeper consumer(*m_bridge, kLong);
    Queue(1, HandOver::kAtOnce);
    EXPECT_EQ(1, consumer.Result());
}

TEST_F(EventHandOver, BatchLeavesTheConsumerAsleepUntilItEnds) {
    Sleeper consumer(*m_bridge, kLong);
    Queue(EventBridge::kBatch - 1, HandOver::kInBatch);
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_FALSE(consumer.IsAwake());
    EXPECT_TRUE(EventBridgePeer::ConsumerSleeps(*m_bridge));
    m_bridge->EndBatch();
    EXPECT_EQ(1, consumer.Result());
}

TEST_F(EventHandOver, FullBatchWakesTheConsumer) {
    Sleeper consumer(*m_bridge, kLong);
    Queue(EventBridge::kBatch, HandOver::kInBatch);
    EXPECT_EQ(1, consumer.Result());
}

TEST_F(EventHandOver, EndOfABatchThatTheConsumerHasTakenAlreadyIsNoWakeUp) {
    const LogCapture log(1);
    Queue(1, HandOver::kInBatch);
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0));
    {
        Sleeper consumer(*m_bridge, kLong);
        m_bridge->EndBatch();
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_FALSE(consumer.IsAwake());
        Queue(1, HandOver::kAtOnce);
        EXPECT_EQ(1, consumer.Result());
    }
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
}

TEST_F(EventHandOver, EndOfNoBatchDoesNothing) {
    m_bridge->EndBatch();
    Sleeper consumer(*m_bridge, kLong);
    m_bridge->EndBatch();
    EXPECT_TRUE(EventBridgePeer::ConsumerSleeps(*m_bridge));
    Queue(1, HandOver::kAtOnce);
    EXPECT_EQ(1, consumer.Result());
}

TEST_F(EventHandOver, ConsumerThatGaveUpCountsAsAwake) {
    { Sleeper consumer(*m_bridge, 1); }
    EXPECT_FALSE(EventBridgePeer::ConsumerSleeps(*m_bridge));
}

TEST_F(EventHandOver, ProducerGivesTheProcessorUpFrom512EventsOn) {
    s_yields = 0;
    Queue(511, HandOver::kInBatch);
    EXPECT_EQ(0, s_yields);
    Queue(1, HandOver::kInBatch);
    EXPECT_EQ(1, s_yields);
    Queue(1, HandOver::kAtOnce);
    EXPECT_EQ(2, s_yields);
}

// ---- Who deletes ----

TEST_F(EventHandOver, FewEventsAreDeletedWhereTheyEnd) {
    Queue(17, HandOver::kAtOnce);
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0)) << "17 are queued";
    EXPECT_EQ(0, TestAlert::s_deleted);
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0)) << "16 are queued";
    EXPECT_EQ(1, TestAlert::s_deleted);
}

TEST_F(EventHandOver, ProducerDeletesWhatTheConsumerLeftOnceIn32Events) {
    Queue(100, HandOver::kAtOnce);
    EXPECT_EQ(50, m_bridge->ProcessEventQueue(50, 0));
    Queue(27, HandOver::kAtOnce);
    EXPECT_EQ(0, TestAlert::s_deleted);
    Queue(1, HandOver::kAtOnce);
    EXPECT_EQ(50, TestAlert::s_deleted);
}

TEST_F(EventHandOver, ProducerDeletesWhatTheConsumerLeftAtTheEndOfABatch) {
    Queue(100, HandOver::kInBatch);
    EXPECT_EQ(50, m_bridge->ProcessEventQueue(50, 0));
    m_bridge->EndBatch();
    EXPECT_EQ(50, TestAlert::s_deleted);
}

TEST_F(EventHandOver, ConsumerDeletesWhatIsLeftBeforeItSleeps) {
    Queue(100, HandOver::kAtOnce);
    EXPECT_EQ(100, m_bridge->ProcessEventQueue(-1, 0));
    EXPECT_EQ(100, TestAlert::s_deleted);
}

TEST_F(EventHandOver, FinalizeDeletesWhatIsLeftAndDropsTheQueuedOnly) {
    Queue(100, HandOver::kAtOnce);
    EXPECT_EQ(50, m_bridge->ProcessEventQueue(50, 0));
    const LogCapture log(3);
    m_bridge->Finalize();
    EXPECT_THAT(log.Messages(),
                testing::ElementsAre("EventBridge drops 50 queued events during finalizing."));
    EXPECT_EQ(100, TestAlert::s_deleted);
}

TEST_F(EventHandOver, NothingIsLostOrCountedTwiceBetweenTwoBusyThreads) {
    constexpr int kEvents = 60000;
    const LogCapture log(1);
    std::atomic<bool> isDone{false};
    std::thread consumer([&] {
        while (!isDone || EventBridgePeer::Count(*m_bridge) > 0) {
            (void)m_bridge->ProcessEventQueue(1, 0);
        }
    });
    int refused = 0;
    for (int sent = 0; sent < kEvents; ++sent) {
        auto event = std::make_unique<TestAlert>(kKnown);
        if (m_bridge->ProcessEvent(event.get(), HandOver::kInBatch) == 0) {
            (void)event.release();
        } else {
            ++refused;
        }
        if (sent % 1000 == 0) {
            m_bridge->EndBatch();
            std::this_thread::sleep_for(milliseconds(1));
        }
    }
    m_bridge->EndBatch();
    isDone = true;
    consumer.join();
    EXPECT_EQ(kEvents, TestAlert::s_reportsMade + refused) << "sent or not: nobody drains the ring";
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
    m_bridge->Finalize();
    EXPECT_EQ(kEvents, TestAlert::s_deleted);
}

}  // namespace
