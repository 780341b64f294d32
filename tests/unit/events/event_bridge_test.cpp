#include "events/event_bridge.h"

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "crm/crm_event_producer.h"
#include "support/levelled_log.h"
#include "threads/cancellation.h"
#include "unit/events/bridge_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

class EventBridgeTest : public EventBridgeFixture {
  protected:
    void Enqueue(int events, uint32_t signature = kKnown) {
        for (int i = 0; i < events; ++i) {
            ASSERT_EQ(0, m_bridge->ProcessEvent(new TestAlert(signature)));
        }
    }

    void EnqueueOneThatFails() {
        auto alert = std::make_unique<TestAlert>(kKnown);
        alert->m_refusesReport = true;
        ASSERT_EQ(0, m_bridge->ProcessEvent(alert.release()));
    }
};

// --- the instance -----------------------------------------------------------------------------

TEST_F(EventBridgeTest, InstanceIsOneUntilItsLastRelease) {
    InitializeForThreads();
    EventBridge* const second = EventBridge::GetInstance();
    EXPECT_EQ(m_bridge, second);
    second->Release();
    Enqueue(1);
    EXPECT_EQ(0, TestAlert::s_deleted) << "the other holder keeps it initialised";
}

TEST_F(EventBridgeTest, LastReleaseFinalises) {
    InitializeForThreads();
    Enqueue(2);
    m_bridge->Release();
    EXPECT_EQ(2, TestAlert::s_deleted);
    m_bridge = EventBridge::GetInstance();
    EXPECT_EQ(-1, m_bridge->ProcessEventQueue(0, 0)) << "a new instance is not initialised";
}

// --- before Initialize, and in the wrong mode -------------------------------------------------

TEST_F(EventBridgeTest, OperationsBeforeInitializeAreRefusedWithAnError) {
    TestAlert event(kKnown);
    const LogCapture log(1);
    EXPECT_EQ(-1, m_bridge->ProcessEvent(&event));
    EXPECT_EQ(-1, m_bridge->SendEvent(&event));
    EXPECT_EQ(-1, m_bridge->EnqueueEvent(&event));
    EXPECT_EQ(-1, m_bridge->ProcessEventQueue(1, 1));
    EXPECT_THAT(log.Messages(),
                ElementsAre("EventBridge::ProcessEvent() is called before Initialized().",
                            "EventBridge::SendEvent() is called before Initialize().",
                            "EventBridge::EnqueueEvent() is called before Initialize().",
                            "EventBridge::ProcessEventQueue() is called before Initialize()."));
}

TEST_F(EventBridgeTest, FinalizeOfABridgeThatIsNotInitialisedDoesAndLogsNothing) {
    const LogCapture log(5);
    m_bridge->Finalize();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(EventBridgeTest, QueueOperationsInSingleThreadModeAreRefusedWithAnError) {
    InitializeForOneThread();
    TestAlert event(kKnown);
    const LogCapture log(1);
    EXPECT_EQ(-1, m_bridge->EnqueueEvent(&event));
    EXPECT_EQ(-1, m_bridge->ProcessEventQueue(1, 1));
    EXPECT_THAT(
        log.Messages(),
        ElementsAre("Attempt to access EventBridge event queue while multi-threading is disabled.",
                    "Attempt to access EventBridge event queue while multithreading is disabled."));
}

// --- Initialize and Finalize ------------------------------------------------------------------

TEST_F(EventBridgeTest, InitializeLogsItsMode) {
    const LogCapture log(5);
    InitializeForThreads();
    m_bridge->Finalize();
    InitializeForOneThread();
    EXPECT_THAT(log.Messages(),
                testing::IsSupersetOf({"Initializing EventBridge.",
                                       "EventBridge is initialized for multiple thread mode.",
                                       "EventBridge is initialized for single thread mode."}));
}

TEST_F(EventBridgeTest, SecondInitializeReturnsZeroAndChangesNothing) {
    InitializeForThreads();
    Enqueue(1);
    Config::s_debugSingle = 1;
    const LogCapture log(5);
    EXPECT_EQ(0, m_bridge->Initialize());
    EXPECT_THAT(log.Messages(),
                ElementsAre("EventBridge::Initialize() is called but was already initialized."));
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0)) << "mode and ring are as they were";
}

TEST_F(EventBridgeTest, InitializeFailsWithoutTheCrmChannelAndCanBeRepeated) {
    const std::string blocker = m_channel.RingBase() + "-0";
    ASSERT_EQ(0, mkdir(blocker.c_str(), 0700));
    {
        const LogCapture log(1);
        EXPECT_EQ(-1, m_bridge->Initialize());
        EXPECT_THAT(log.Messages(),
                    ElementsAre("CRM communication channel cannot be opened.",
                                "EventBridge failed to initialize CrmEventProducer."));
    }
    EXPECT_EQ(-1, m_bridge->ProcessEventQueue(0, 0));
    ASSERT_EQ(0, rmdir(blocker.c_str()));
    InitializeForThreads();
    EXPECT_EQ(0, m_bridge->ProcessEventQueue(0, 0));
}

TEST_F(EventBridgeTest, FinalizeDropsQueuedEventsUnsent) {
    InitializeForThreads();
    Enqueue(5);
    const LogCapture log(3);
    m_bridge->Finalize();
    EXPECT_THAT(log.Messages(),
                ElementsAre("EventBridge drops 5 queued events during finalizing."));
    EXPECT_EQ(5, TestAlert::s_deleted);
    EXPECT_EQ(0, TestAlert::s_reportsMade);
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(EventBridgeTest, FinalizeOfAnEmptyRingLogsNothing) {
    InitializeForThreads();
    const LogCapture log(5);
    m_bridge->Finalize();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(EventBridgeTest, InitializeAfterFinalizeStartsWithAnEmptyRing) {
    InitializeForThreads();
    Enqueue(3);
    m_bridge->Finalize();
    EXPECT_EQ(-1, EventBridgePeer::Count(*m_bridge));
    InitializeForThreads();
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
    EXPECT_EQ(0, m_bridge->ProcessEventQueue(1, 0));
    Enqueue(1);
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0));
}

TEST_F(EventBridgeTest, FinalizeGivesTheChannelBack) {
    InitializeForThreads();
    m_bridge->Finalize();
    CrmEventProducer* const producer = CrmEventProducer::GetInstance();
    const iovec piece{const_cast<char*>("x"), 1};
    EXPECT_EQ(1, producer->Send(&piece, 1, 0));
    producer->Release();
}

// --- single thread mode -----------------------------------------------------------------------

TEST_F(EventBridgeTest, ProcessEventOnOneThreadSendsAndDeletes) {
    InitializeForOneThread();
    {
        const LogCapture log(5);
        EXPECT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown)));
        EXPECT_THAT(log.Messages(),
                    testing::Contains("EventBridge processed one event synchronized."));
    }
    EXPECT_EQ(1, TestAlert::s_deleted);
    EXPECT_EQ(1u, Reports().size());
}

TEST_F(EventBridgeTest, ProcessEventOnOneThreadLeavesAFailedEventWithTheCaller) {
    InitializeForOneThread();
    TestAlert event(kKnown);
    event.m_refusesReport = true;
    const LogCapture log(2);
    EXPECT_EQ(-2, m_bridge->ProcessEvent(&event));
    EXPECT_EQ(0, TestAlert::s_deleted);
    EXPECT_EQ(kKnown, event.m_signatureId);
    EXPECT_THAT(log.Messages(), testing::Contains("EventBridge failed to process event."));
}

TEST_F(EventBridgeTest, SendEventIgnoresANullEvent) {
    InitializeForOneThread();
    const LogCapture log(2);
    EXPECT_EQ(-1, m_bridge->SendEvent(nullptr));
    EXPECT_THAT(log.Messages(), ElementsAre("Ignoring NULL event from sending to CRM."));
}

TEST_F(EventBridgeTest, KeepsSendingUnqueuedInMultipleThreadMode) {
    InitializeForThreads();
    const LogCapture log(3);
    EXPECT_EQ(0, m_bridge->SendEvent(new TestAlert(kKnown)));
    EXPECT_THAT(log.Messages(),
                ElementsAre("Request unqueued event processing while multi-threading is enabled."));
    EXPECT_EQ(1u, Reports().size());
}

// --- the log ----------------------------------------------------------------------------------

TEST_F(EventBridgeTest, EveryMessageHasItsLevel) {
    const auto lines = LevelledMessages([this] {
        TestAlert refused(kKnown);
        refused.m_refusesReport = true;
        EXPECT_EQ(-1, m_bridge->ProcessEvent(&refused));
        EXPECT_EQ(-1, m_bridge->SendEvent(&refused));
        EXPECT_EQ(-1, m_bridge->EnqueueEvent(&refused));
        EXPECT_EQ(-1, m_bridge->ProcessEventQueue(1, 0));
        InitializeForThreads();
        EXPECT_EQ(0, m_bridge->Initialize());
        EXPECT_EQ(-1, m_bridge->SendEvent(nullptr));
        EXPECT_EQ(-2, m_bridge->SendEvent(&refused));
        EXPECT_EQ(1, m_bridge->EnqueueEvent(nullptr));
        EnqueueOneThatFails();
        EXPECT_EQ(0, m_bridge->ProcessEventQueue(1, 0));
        Enqueue(1);
        EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0));
        Enqueue(EventBridge::kRingSize);
        EXPECT_EQ(2, m_bridge->EnqueueEvent(&refused));
        m_bridge->Finalize();
        InitializeForOneThread();
        EXPECT_EQ(0, m_bridge->ProcessEvent(new TestAlert(kKnown)));
        EXPECT_EQ(-1, m_bridge->EnqueueEvent(&refused));
        EXPECT_EQ(-1, m_bridge->ProcessEventQueue(1, 0));
        m_bridge->Finalize();
    });
    std::vector<std::string> own;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(own), [](const std::string& line) {
        return line.find("PacketLogCtrlIF") == std::string::npos &&
               line.find("Dispatching CRM event") == std::string::npos;
    });
    EXPECT_THAT(
        own,
        ElementsAre(
            "1 EventBridge::ProcessEvent() is called before Initialized().",
            "1 EventBridge::SendEvent() is called before Initialize().",
            "1 EventBridge::EnqueueEvent() is called before Initialize().",
            "1 EventBridge::ProcessEventQueue() is called before Initialize().",
            "5 Initializing EventBridge.", "5 EventBridge is initialized for multiple thread mode.",
            "5 EventBridge::Initialize() is called but was already initialized.",
            "3 Request unqueued event processing while multi-threading is enabled.",
            "2 Ignoring NULL event from sending to CRM.",
            "3 Request unqueued event processing while multi-threading is enabled.",
            "2 EventBridge failed to create CrmEventSource instance from U2AlertEvent.",
            "2 EventBridge failed to process event.", "2 Ignoring NULL event from enqueuing.",
            "2 EventBridge failed to create CrmEventSource instance from U2AlertEvent.",
            "2 EventBridge failed to process queued event.",
            "5 EventBridge processed 1 events from queue.", "2 EventBridge event queue is full.",
            "3 EventBridge drops 1024 queued events during finalizing.",
            "5 Initializing EventBridge.", "5 EventBridge is initialized for single thread mode.",
            "5 EventBridge processed one event synchronized.",
            "1 Attempt to access EventBridge event queue while multi-threading is disabled.",
            "1 Attempt to access EventBridge event queue while multithreading is disabled."));
}

// --- the ring ---------------------------------------------------------------------------------

TEST_F(EventBridgeTest, EnqueueEventIgnoresANullEvent) {
    InitializeForThreads();
    const LogCapture log(2);
    EXPECT_EQ(1, m_bridge->EnqueueEvent(nullptr));
    EXPECT_THAT(log.Messages(), ElementsAre("Ignoring NULL event from enqueuing."));
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
}

TEST_F(EventBridgeTest, RingHolds1024EventsAndRefusesTheNext) {
    InitializeForThreads();
    Enqueue(1024);
    const LogCapture log(2);
    TestAlert refused(kKnown);
    EXPECT_EQ(2, m_bridge->ProcessEvent(&refused));
    EXPECT_EQ(2, m_bridge->ProcessEvent(&refused));
    EXPECT_THAT(log.Messages(), ElementsAre("EventBridge event queue is full.",
                                            "EventBridge event queue is full."));
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0));
    Enqueue(1);
    EXPECT_EQ(2, m_bridge->ProcessEvent(&refused));
    EXPECT_EQ(1024, m_bridge->ProcessEventQueue(1024, 0));
    EXPECT_EQ(1025u, Reports().size());
}

TEST_F(EventBridgeTest, FinalizeDropsAFullRing) {
    InitializeForThreads();
    Enqueue(1024);
    m_bridge->Finalize();
    EXPECT_EQ(1024, TestAlert::s_deleted);
}

TEST_F(EventBridgeTest, RingKeepsTheOrderOfEventsAcrossItsEnd) {
    InitializeForThreads();
    Enqueue(1000);
    EXPECT_EQ(1000, m_bridge->ProcessEventQueue(1000, 0));
    Reports();
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) {
        auto* alert = new TestAlert(kKnown);
        alert->m_beforeReport = [&order, i] { order.push_back(i); };
        ASSERT_EQ(0, m_bridge->EnqueueEvent(alert));
    }
    EXPECT_EQ(100, m_bridge->ProcessEventQueue(100, 0));
    ASSERT_EQ(100u, order.size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    Enqueue(3);
    m_bridge->Finalize();
    EXPECT_EQ(1103, TestAlert::s_deleted);
}

TEST_F(EventBridgeTest, ProcessEventQueueReturnsAfterAboutASecondWithoutEvents) {
    InitializeForThreads();
    const LogCapture log(5);
    const auto begin = Clock::now();
    EXPECT_EQ(0, m_bridge->ProcessEventQueue(1, 1));
    const auto waited = Clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(990));
    EXPECT_LT(waited, std::chrono::seconds(10));
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(EventBridgeTest, ProcessEventQueueForNoEventsReturnsWithoutTouchingTheLock) {
    InitializeForThreads();
    Enqueue(1);
    const EventBridgePeer::Lock held(*m_bridge);  // it would wait here for ever
    EXPECT_EQ(0, m_bridge->ProcessEventQueue(0, 60));
}

TEST_F(EventBridgeTest, ProcessEventQueueTakesAtMostTheMaximum) {
    InitializeForThreads();
    Enqueue(3);
    const LogCapture log(5);
    EXPECT_EQ(2, m_bridge->ProcessEventQueue(2, 0));
    EXPECT_EQ(1, EventBridgePeer::Count(*m_bridge));
    EXPECT_THAT(log.Messages(), testing::Contains("EventBridge processed 2 events from queue."));
}

TEST_F(EventBridgeTest, FailedEventIsDeletedAndNotCounted) {
    InitializeForThreads();
    Enqueue(1);
    EnqueueOneThatFails();
    Enqueue(1);
    const LogCapture log(2);
    const auto begin = Clock::now();
    EXPECT_EQ(2, m_bridge->ProcessEventQueue(-1, 1));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(990))
        << "no limit: until it times out";
    EXPECT_EQ(3, TestAlert::s_deleted);
    EXPECT_THAT(log.Messages(), testing::Contains("EventBridge failed to process queued event."));
    EXPECT_EQ(2u, Reports().size());
}

// --- two threads ------------------------------------------------------------------------------

TEST_F(EventBridgeTest, ConsumerOnAnotherThreadGetsEveryEvent) {
    InitializeForThreads();
    constexpr int kEvents = 5000;
    int processed = 0;
    std::thread consumer([this, &processed] {
        while (processed < kEvents) {
            processed += m_bridge->ProcessEventQueue(1, 1);
        }
    });
    for (int sent = 0; sent < kEvents;) {
        auto event = std::make_unique<TestAlert>(kKnown);
        if (m_bridge->ProcessEvent(event.get()) == 0) {
            (void)event.release();
            ++sent;
        } else {
            std::this_thread::yield();
        }
    }
    consumer.join();
    EXPECT_EQ(kEvents, processed);
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
}

TEST_F(EventBridgeTest, NoLockIsHeldWhileAnEventIsProcessed) {
    InitializeForThreads();
    auto* alert = new TestAlert(kKnown);
    bool free = false;
    alert->m_beforeReport = [this, &free] { free = EventBridgePeer::LockIsFree(*m_bridge); };
    ASSERT_EQ(0, m_bridge->ProcessEvent(alert));
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0));
    EXPECT_TRUE(free);
}

TEST_F(EventBridgeTest, KeepsCountingDownAtAWakeUpWithNothingInTheRing) {
    InitializeForThreads();
    const LogCapture log(1);
    std::atomic<bool> done = false;
    int result = -1;
    std::thread consumer([&] {
        result = m_bridge->ProcessEventQueue(1, 60);
        done = true;
    });
    while (!done) {
        EventBridgePeer::WakeUpForNothing(*m_bridge);
        std::this_thread::yield();
    }
    consumer.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(-1, EventBridgePeer::Count(*m_bridge));
    EXPECT_THAT(
        log.Messages(),
        ElementsAre(
            "NULL event extracted from EventBridge event queue. Something wrong happened."));
    Enqueue(1);
    EXPECT_EQ(0, EventBridgePeer::Count(*m_bridge));
    EXPECT_EQ(0, m_bridge->ProcessEventQueue(1, 0)) << "nothing is left to take by the count";
    m_bridge->Finalize();
    EXPECT_EQ(1, TestAlert::s_deleted) << "Finalize finds the event that is no longer counted";
}

// --- a consumer that is cancelled -------------------------------------------------------------

// Runs the body on a thread with cancellation off, as EventThread does.
class ConsumerThread {
  public:
    explicit ConsumerThread(std::function<void()> body) : m_body(std::move(body)) {
        pthread_create(&m_thread, nullptr, &Run, this);
    }
    ConsumerThread(const ConsumerThread&) = delete;
    ConsumerThread& operator=(const ConsumerThread&) = delete;

    // True when it was the cancel that ended it.
    bool Cancel() {
        pthread_cancel(m_thread);
        void* result = nullptr;
        pthread_join(m_thread, &result);
        return result == PTHREAD_CANCELED;
    }

  private:
    static void* Run(void* self) {
        const CancellationOff off;
        static_cast<ConsumerThread*>(self)->m_body();
        return nullptr;
    }

    std::function<void()> m_body;
    pthread_t m_thread{};
};

TEST_F(EventBridgeTest, CancelOfAWaitingConsumerLeavesLockAndRingInOrder) {
    InitializeForThreads();
    ConsumerThread consumer([this] { (void)m_bridge->ProcessEventQueue(-1, 3600); });
    Enqueue(3);
    while (EventBridgePeer::Count(*m_bridge) != 0) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(consumer.Cancel());
    EXPECT_TRUE(EventBridgePeer::LockIsFree(*m_bridge));

    Enqueue(2);
    EXPECT_EQ(1, m_bridge->ProcessEventQueue(1, 0)) << "the next consumer goes on where it was";
    m_bridge->Finalize();
    EXPECT_EQ(5, TestAlert::s_deleted);
}

TEST_F(EventBridgeTest, CancelInsideTheProcessingDeletesTheEventOnce) {
    InitializeForThreads();
    std::atomic<bool> entered = false;
    auto* alert = new TestAlert(kKnown);
    alert->m_beforeReport = [&entered] {
        entered = true;
        const CancellationOn window;
        for (;;) {
            pthread_testcancel();
        }
    };
    ASSERT_EQ(0, m_bridge->ProcessEvent(alert));
    Enqueue(2);
    ConsumerThread consumer([this] { (void)m_bridge->ProcessEventQueue(-1, 3600); });
    while (!entered) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(consumer.Cancel());
    EXPECT_EQ(1, TestAlert::s_deleted);
    EXPECT_TRUE(EventBridgePeer::LockIsFree(*m_bridge));
    m_bridge->Finalize();
    EXPECT_EQ(3, TestAlert::s_deleted);
}

}  // namespace
