#include "events/event_bridge.h"

#include <sched.h>

#include <cerrno>
#include <memory>
#include <new>

#include "config/config.h"
#include "crm/crm_event_producer.h"
#include "logging/log.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "threads/cancellation.h"
#include "threads/gate.h"
#include "threads/mutex_lock.h"
#include "unified2/unified2_events.h"

using vald::Log;

namespace {

int32_t NextSlot(int32_t index) {
    return (index + 1) & (EventBridge::kRingSize - 1);
}

}  // namespace

// The consumer's position in the ring while it takes events out. It is written back to the bridge
// on every way out, also when the thread is cancelled, so that the next consumer goes on from
// there.
class EventBridge::Consumer {
  public:
    explicit Consumer(EventBridge& bridge) : m_bridge(bridge), m_index(bridge.m_head) {}
    ~Consumer() { m_bridge.m_head = m_index; }
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    // Takes the event out of its slot. Null when the slot holds none.
    std::unique_ptr<U2AlertEvent> Take() {
        // Acquire: pairs with the release in EnqueueEvent, should the wake-up have come without
        // one.
        auto& slot = m_bridge.m_queue[static_cast<size_t>(m_index)];
        std::unique_ptr<U2AlertEvent> event(slot.load(std::memory_order_acquire));
        slot.store(nullptr, std::memory_order_relaxed);
        return event;
    }

    void Advance() {
        m_index = NextSlot(m_index);
        // Release: a producer that sees the room finds the slot cleared.
        m_bridge.m_count.fetch_sub(1, std::memory_order_release);
    }

  private:
    EventBridge& m_bridge;
    int32_t m_index;
};

// Says that the consumer waits, for as long as it does, a cancel included. Made and destroyed with
// the lock held.
class EventBridge::Waiting {
  public:
    explicit Waiting(std::atomic<bool>& waits) : m_waits(waits) {
        // In one order with the count: either the producer sees this or the consumer its event.
        m_waits.store(true, std::memory_order_seq_cst);
    }
    ~Waiting() { m_waits.store(false, std::memory_order_relaxed); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

  private:
    std::atomic<bool>& m_waits;
};

EventBridge* EventBridge::s_instance = nullptr;

EventBridge::~EventBridge() {
    pthread_cond_destroy(&m_notEmpty);
    pthread_mutex_destroy(&m_mutex);
}

EventBridge* EventBridge::GetInstance() {
    if (s_instance == nullptr) {
        s_instance = new (std::nothrow) EventBridge;
    } else {
        s_instance->m_refCount.fetch_add(1, std::memory_order_relaxed);
    }
    return s_instance;
}

void EventBridge::Release() {
    // Acquire and release: the last holder sees what the others did before they let go.
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    s_instance = nullptr;
    Finalize();
    delete this;
}

int EventBridge::Initialize() {
    Log& log = *Log::GetInstance();
    if (m_initialized) {
        log.Write(Log::kDebug, "EventBridge::Initialize() is called but was already initialized.");
        return 0;
    }
    log.Write(Log::kDebug, "Initializing EventBridge.");

    m_producer = CrmEventProducer::GetInstance();
    if (m_producer->Open(Config::s_engineCrm) != 0) {
        log.Write(Log::kError, "EventBridge failed to initialize CrmEventProducer.");
        m_producer->Release();
        m_producer = nullptr;
        return -1;
    }

    m_head = 0;
    m_tail = 0;
    m_batchIsOpen = false;
    m_count.store(0, std::memory_order_relaxed);

    m_multiThreaded = Config::s_debugSingle == 0;
    if (m_multiThreaded) {
        log.Write(Log::kDebug, "EventBridge is initialized for multiple thread mode.");
    } else {
        log.Write(Log::kDebug, "EventBridge is initialized for single thread mode.");
    }

    if (m_packetLog == nullptr) {
        m_packetLog = PacketLogCtrl::PacketLogCtrlIF::GetInstance();
    }
    if (m_packetLog == nullptr) {
        log.Write(
            Log::kError,
            "Packet engine cannot get instance  of Packet Logging Daemon Interface.  Packet Logging will be disabled.");
    }

    m_initialized = true;
    return 0;
}

void EventBridge::Finalize() {
    if (!m_initialized) {
        return;
    }
    // This comes first, so that queued events are dropped and not sent.
    m_producer->Release();
    m_producer = nullptr;

    const int32_t queued = m_count.load(std::memory_order_relaxed);
    if (queued > 0) {
        Log::GetInstance()->Write(Log::kInfo,
                                  "EventBridge drops %d queued events during finalizing.", queued);
    }
    // All slots are looked at, not only the counted ones: a wake-up without an event has skipped a
    // slot and lowered the count, so the ring may hold an event that is no longer counted.
    for (int32_t slots = 0; slots < kRingSize; ++slots) {
        auto& slot = m_queue[static_cast<size_t>(m_head)];
        delete slot.exchange(nullptr, std::memory_order_acquire);
        m_head = NextSlot(m_head);
    }
    DeleteFinished();
    m_count.store(-1, std::memory_order_relaxed);  // until the next Initialize

    if (m_packetLog != nullptr) {
        m_packetLog->Release();
        m_packetLog = nullptr;
    }
    m_initialized = false;
}

int EventBridge::ProcessEvent(U2AlertEvent* event, HandOver handOver) {
    if (!m_initialized) {
        Log::GetInstance()->Write(Log::kError,
                                  "EventBridge::ProcessEvent() is called before Initialized().");
        return -1;
    }
    return m_multiThreaded ? EnqueueEvent(event, handOver) : SendEvent(event);
}

int EventBridge::SendEvent(U2AlertEvent* event) {
    Log& log = *Log::GetInstance();
    if (!m_initialized) {
        log.Write(Log::kError, "EventBridge::SendEvent() is called before Initialize().");
        return -1;
    }
    if (m_multiThreaded) {
        log.Write(Log::kInfo,
                  "Request unqueued event processing while multi-threading is enabled.");
    }
    if (event == nullptr) {
        log.Write(Log::kWarning, "Ignoring NULL event from sending to CRM.");
        return -1;
    }
    if (ProcessOneEvent(event) != 0) {
        log.Write(Log::kWarning, "EventBridge failed to process event.");
        return -2;
    }
    log.Write(Log::kDebug, "EventBridge processed one event synchronized.");
    delete event;
    return 0;
}

int EventBridge::EnqueueEvent(U2AlertEvent* event, HandOver handOver) {
    Log& log = *Log::GetInstance();
    if (!m_initialized) {
        log.Write(Log::kError, "EventBridge::EnqueueEvent() is called before Initialize().");
        return -1;
    }
    if (!m_multiThreaded) {
        log.Write(Log::kError,
                  "Attempt to access EventBridge event queue while multi-threading is disabled.");
        return -1;
    }
    if (event == nullptr) {
        log.Write(Log::kWarning, "Ignoring NULL event from enqueuing.");
        return 1;
    }
    // Acquire: pairs with the release in Consumer::Advance. Until this call raises the count, it
    // can only fall.
    if (m_count.load(std::memory_order_acquire) == kRingSize) {
        log.Write(Log::kWarning, "EventBridge event queue is full.");
        return 2;
    }

    m_queue[static_cast<size_t>(m_tail)].store(event, std::memory_order_release);
    m_tail = NextSlot(m_tail);
    // In one order with m_waits.
    const int32_t queued = m_count.fetch_add(1, std::memory_order_seq_cst) + 1;
    if (handOver == HandOver::kAtOnce || queued >= kBatch) {
        WakeConsumer();
    } else {
        m_batchIsOpen = true;
    }
    if (m_tail % kDeleteEach == 0) {
        DeleteFinished();
    }
    if (queued >= kYieldAt) {
        sched_yield();
    }
    return 0;
}

void EventBridge::EndBatch() {
    if (m_batchIsOpen) {
        m_batchIsOpen = false;
        WakeConsumer();
        DeleteFinished();
    }
}

// A wake-up counts as an event, so there is none without an event in the ring, and one only for
// each wait.
void EventBridge::WakeConsumer() {
    if (!m_waits.load(std::memory_order_seq_cst)) {
        return;
    }
    const MutexLock lock(m_mutex);
    if (m_count.load(std::memory_order_relaxed) > 0 &&
        m_waits.exchange(false, std::memory_order_relaxed)) {
        pthread_cond_signal(&m_notEmpty);
    }
}

void EventBridge::Finish(U2AlertEvent* event) {
    if (m_count.load(std::memory_order_relaxed) <= kFewQueued) {
        delete event;
        return;
    }
    event->m_nextFinished = m_finished.load(std::memory_order_relaxed);
    // Release: the thread that deletes the event finds it as it was left.
    while (!m_finished.compare_exchange_weak(
        event->m_nextFinished, event, std::memory_order_release, std::memory_order_relaxed)) {
    }
}

void EventBridge::DeleteFinished() {
    if (m_finished.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    // Taken as a whole, so that both threads may do this.
    U2AlertEvent* event = m_finished.exchange(nullptr, std::memory_order_acquire);
    while (event != nullptr) {
        U2AlertEvent* const next = event->m_nextFinished;
        delete event;
        event = next;
    }
}

int EventBridge::ProcessEventQueue(int32_t maximum, uint32_t seconds) {
    Log& log = *Log::GetInstance();
    if (!m_initialized) {
        log.Write(Log::kError, "EventBridge::ProcessEventQueue() is called before Initialize().");
        return -1;
    }
    if (!m_multiThreaded) {
        log.Write(Log::kError,
                  "Attempt to access EventBridge event queue while multithreading is disabled.");
        return -1;
    }

    int processed = 0;
    {
        Consumer consumer(*this);
        for (int32_t left = maximum; left != 0; left -= left > 0 ? 1 : 0) {
            if (!WaitForEvent(seconds)) {
                break;
            }
            // The event leaves its slot before it is processed, so that a cancel in the middle of
            // the processing deletes it once.
            std::unique_ptr<U2AlertEvent> event = consumer.Take();
            if (event == nullptr) {
                log.Write(
                    Log::kError,
                    "NULL event extracted from EventBridge event queue. Something wrong happened.");
            } else if (ProcessOneEvent(event.get()) == 0) {
                ++processed;
            } else {
                log.Write(Log::kWarning, "EventBridge failed to process queued event.");
            }
            if (event != nullptr) {
                Finish(event.release());
            }
            consumer.Advance();
        }
    }
    if (processed > 0) {
        log.Write(Log::kDebug, "EventBridge processed %d events from queue.", processed);
    }
    return processed;
}

// False when nothing came in time.
bool EventBridge::WaitForEvent(uint32_t seconds) {
    // Acquire: pairs with EnqueueEvent, whose slot is filled before it counts.
    if (m_count.load(std::memory_order_acquire) != 0) {
        return true;
    }
    DeleteFinished();  // before a sleep that may be long
    const MutexLock lock(m_mutex);
    const Waiting waiting(m_waits);
    if (m_count.load(std::memory_order_seq_cst) != 0) {
        return true;
    }
    const timespec deadline = DeadlineFromNow(uint64_t{seconds} * 1000);
    // This is the one place where a cancel takes effect. A cancelled wait takes the mutex again
    // before the thread unwinds, and the guard then releases it.
    const CancellationOn window;
    // Deliberate: a wake-up counts as an event without another look at the count. One that comes
    // with nothing in the ring is reported by the caller and takes one off the count.
    return pthread_cond_timedwait(&m_notEmpty, &m_mutex, &deadline) != ETIMEDOUT;
}
