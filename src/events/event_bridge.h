#pragma once

// EventBridge: takes alerts from the Snort readers and has each of them processed.
//
// A reader hands it a finished alert. In single thread mode the bridge processes it on the caller's
// thread; in multiple thread mode it puts it in a fixed ring that EventThread drains. What is done
// with one event is in event_policy.cpp.
//
// Owner: its holders, by reference count. TarnEngine takes the first reference and gives back the
// last one; EventThread holds one of its own while it runs.
//
// Threads: one producer (ProcessEvent and EndBatch, on the main thread) and one consumer
// (ProcessEventQueue, on the event thread). The producer alone touches m_tail, the consumer alone
// m_head; a slot is handed over by the count, which is an atomic. The lock is for the consumer's
// wait alone: it takes it when the ring is empty, and the producer takes it to wake it.
// docs/decisions/0006-hand-over.md has the reasons. The lock is never held while an event is
// processed. Initialize, Finalize and the last Release run while the consumer does not. A consumer
// whose owner has switched cancellation off can be cancelled while it waits for an event; it then
// leaves the lock free and the queued events in the ring.

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <list>

#include "quarantine/dbt_comm.h"

struct BlockRule;
class CrmEventProducer;
class CrmEventSource;
class U2AlertEvent;

namespace PacketLogCtrl {
class PacketLogCtrlIF;
}

class EventBridge {
  public:
    static constexpr int32_t kRingSize = 1024;  // events; a power of two

    // How an event is queued. One of a batch leaves a waiting consumer asleep until kBatch events
    // are queued or the producer calls EndBatch.
    enum class HandOver { kAtOnce, kInBatch };
    static constexpr int32_t kBatch = 64;  // events

    EventBridge(const EventBridge&) = delete;
    EventBridge& operator=(const EventBridge&) = delete;

    // The instance, with one more reference held. A new one is not initialised. Null only when a
    // new one finds no memory.
    [[nodiscard]] static EventBridge* GetInstance();
    // Gives one reference back; the last one finalises and frees the instance.
    void Release();

    // Opens the way to the CRM, empties the ring, and takes the mode from the configuration: 0,
    // also when that was done already. -1 when the CRM channel cannot be opened.
    [[nodiscard]] int Initialize();
    // Closes the ways out and deletes the events still queued, unsent. Does nothing on a bridge
    // that is not initialised.
    void Finalize();

    // Takes an event: 0 means that the bridge has it, or has processed and deleted it. With any
    // other result, which is that of SendEvent or EnqueueEvent or -1, it stays the caller's.
    [[nodiscard]] int ProcessEvent(U2AlertEvent* event, HandOver handOver = HandOver::kAtOnce);

    // Processes the event on this thread. 0 done and deleted; -1 not initialised or no event; -2
    // the event could not be processed. With other results than 0 it stays the caller's.
    [[nodiscard]] int SendEvent(U2AlertEvent* event);

    // Puts the event in the ring. 0 queued; 1 no event; 2 the ring is full; -1 not initialised or
    // not in multiple thread mode. With other results than 0 it stays the caller's.
    [[nodiscard]] int EnqueueEvent(U2AlertEvent* event, HandOver handOver = HandOver::kAtOnce);

    // Wakes the consumer for what was queued as part of a batch. The producer calls it before it
    // waits or stops. Does nothing without such events.
    void EndBatch();

    // Processes events from the ring, at most `maximum` of them, or without limit when that is
    // negative, and returns once nothing came for `seconds`. The number of events that were
    // processed without error, or -1 when not initialised or not in multiple thread mode.
    [[nodiscard]] int ProcessEventQueue(int32_t maximum, uint32_t seconds);

  private:
    friend class EventBridgePeer;  // tests

    class Consumer;
    class Waiting;

    // From this many queued events on the producer gives the processor up for a moment after each
    // one, so that a consumer that shares it comes to run before the ring is full.
    static constexpr int32_t kYieldAt = 512;
    // With more events than this in the ring the consumer leaves those that it has finished to the
    // producer, which has allocated them. With fewer it deletes them itself, at once.
    static constexpr int32_t kFewQueued = 16;
    // The producer deletes what the consumer left to it once in so many events; a power of two.
    static constexpr int32_t kDeleteEach = 32;

    EventBridge() = default;
    ~EventBridge();

    // event_policy.cpp. Turns the event into a report and sends it: 0, or -2 when there is no
    // report or it could not be sent. The event is only read. Faults on a signature without an
    // entry.
    [[nodiscard]] int ProcessOneEvent(U2AlertEvent* event);
    // Tries each block rule in its order: 0 when at least one quarantine rule was added, else 1.
    [[nodiscard]] int ApplyQuarantinePolicy(const CrmEventSource* source, uint32_t responseFlags,
                                            const std::list<BlockRule>& blockRules);
    // 0 the security manager has added the rule; 1 the block rule does not apply to this event; -1
    // the rule could not be made or was not added.
    [[nodiscard]] int QuarantineByRule(const CrmEventSource* source, const BlockRule* blockRule);

    [[nodiscard]] bool WaitForEvent(uint32_t seconds);
    void WakeConsumer();
    // Deletes the event now, or leaves it to the producer.
    void Finish(U2AlertEvent* event);
    void DeleteFinished();

    static EventBridge* s_instance;  // owned by its references

    std::atomic<uint32_t> m_refCount{1};
    std::atomic<bool> m_initialized{false};
    CrmEventProducer* m_producer = nullptr;  // counted; null while not initialised
    std::atomic<bool> m_multiThreaded{false};
    PacketLogCtrl::PacketLogCtrlIF* m_packetLog = nullptr;  // counted; null while not initialised
    DbtComm m_dbtComm;  // connects at the first quarantine rule and stays connected
    // What the two threads write is kept apart: the consumer's before the slots, the producer's
    // after them, and beyond the lock what both of them write.
    int32_t m_head = 0;  // next slot to read, 0 to kRingSize - 1; the consumer's
    std::array<std::atomic<U2AlertEvent*>, kRingSize> m_queue{};  // owned; a slot is null when free
    int32_t m_tail = 0;          // next slot to write, 0 to kRingSize - 1; the producer's
    bool m_batchIsOpen = false;  // events were queued without a wake-up; the producer's
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_notEmpty = PTHREAD_COND_INITIALIZER;
    std::atomic<bool> m_waits{false};                // the consumer is asleep or about to be
    std::atomic<int32_t> m_count{0};                 // events in the ring
    std::atomic<U2AlertEvent*> m_finished{nullptr};  // owned; the last one of a list
};
