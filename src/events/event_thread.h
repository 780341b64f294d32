#pragma once

// The one consumer of the EventBridge ring in multiple thread mode.
//
// TarnEngine makes it, starts it at every StartEngine, and keeps the object over reloads. While
// the body runs it holds a reference of the bridge of its own.
//
// Threads: Stop, Suspend, Resume, WaitSuspended and ForceQuit are for the owner's thread. The body
// runs with cancellation off but for its waits: in the bridge for an event, at the resume gate,
// and at what the processing of an event waits for. So a cancel lands where nothing is half done.

#include <atomic>
#include <cstdint>

#include "threads/thread.h"

class EventBridge;

class EventThread : public Thread {
  public:
    // Exit codes of the body.
    static constexpr int kExitStopped = 0;
    static constexpr int kExitNoBridge = 1;
    static constexpr int kExitBridgeRefused = 2;  // not initialised, or not in multiple thread mode

    // `reserved` is stored and never read. A `cpu` above 0 is the CPU to bind to; others leave the
    // thread on the mask that it inherits.
    EventThread(const char* name, int32_t reserved, int32_t cpu);
    ~EventThread() override;

    // Returns 1. A suspended thread wakes up to end. Lost when it comes before the body has begun.
    int Stop() override;
    int Run() override;

    void Suspend();
    void Resume();
    // True when the thread has reached its suspended state within the time in milliseconds.
    [[nodiscard]] bool WaitSuspended(unsigned timeoutMs);

    // Cancels a running thread, waits for its end, and gives its reference of the bridge back.
    void ForceQuit();

  private:
    void BindToCpu() const;
    void WaitWhileSuspended();

    Gate m_resumeGate;     // a suspended thread waits here
    Gate m_suspendedGate;  // open while the thread is suspended
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_suspend{false};
    [[maybe_unused]] int32_t m_reserved;  // Deliberate: stored, not read
    int32_t m_cpu;
    EventBridge* m_bridge = nullptr;  // counted; held while the body runs
};
