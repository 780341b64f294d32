#pragma once

// Abstract base of the worker threads: one POSIX thread that can be started again after it has
// ended, and a join that can give up after a number of milliseconds.
//
// The owner of a Thread makes sure that its thread has ended before it destroys the object: see
// Settle. The destructor neither stops nor cancels nor joins.
//
// Threads: one owner thread calls Start, Join, Cancel, SetPriority, GetPriority, AwaitBegun and
// Settle. IsRunning, IsFinished and ExitCode may be read by any thread at any time; the new thread
// writes them.

#include <pthread.h>

#include <atomic>
#include <exception>
#include <string>

#include "threads/gate.h"

// Binds the calling thread to one CPU, a number from 0. False when the system refuses or has no
// such CPU.
[[nodiscard]] bool BindCallingThreadToCpu(int cpu);

class Thread {
  public:
    explicit Thread(const char* name);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Asks the body to end and does not wait for it.
    virtual int Stop() = 0;
    // The thread's body. Its result becomes the exit code.
    virtual int Run() = 0;
    // Called on the thread with what escaped from Run; the thread then ends as usual.
    virtual void OnException(const std::exception& e);

    // Makes the thread. False when one is already there that has not finished, or when the system
    // refuses. A detached thread stays marked as detached for good, also for later starts.
    [[nodiscard]] bool Start(bool detached);

    // True if the thread ended within timeoutMs milliseconds. `result`, unless null, receives the
    // exit code, but not from a detached thread.
    [[nodiscard]] bool Join(unsigned timeoutMs, void** result);
    // The same without a limit.
    [[nodiscard]] bool Join(void** result);

    // Detaches the thread and cancels it. A thread that has already finished is left alone.
    void Cancel();

    // Both return 0 or an errno value, ESRCH without a thread that runs. SetPriority makes the
    // thread one of SCHED_FIFO.
    [[nodiscard]] int SetPriority(int priority);
    [[nodiscard]] int GetPriority(int* priority);

    // Waits at most timeoutMs milliseconds until a thread that Start has made has come to its first
    // line. False when none was made, or when the time ran out.
    [[nodiscard]] bool AwaitBegun(unsigned timeoutMs);
    // Waits at most timeoutMs milliseconds until no thread can touch this object any more, so that
    // it may be destroyed. True at once when none was ever made; false when the time ran out.
    [[nodiscard]] bool Settle(unsigned timeoutMs);

    // True from the first line of the new thread until Run has returned.
    [[nodiscard]] bool IsRunning() const { return m_running.load(std::memory_order_acquire); }
    // True once Run has returned; allows a restart.
    [[nodiscard]] bool IsFinished() const { return m_finished.load(std::memory_order_acquire); }
    [[nodiscard]] long ExitCode() const { return m_exitCode.load(std::memory_order_acquire); }
    // 0 before the first start; not reset when the thread ends.
    [[nodiscard]] pthread_t Handle() const { return m_handle; }

    // The start routine; self is the Thread.
    static void* EntryPoint(void* self);

  protected:
    // Cancels the thread and waits for its end, but never for ever. True when it has ended. Not
    // for a detached thread.
    [[nodiscard]] bool CancelAndJoin();

  private:
    void MarkFinished();
    // Calls `action` if m_handle names a thread that has not finished, and keeps it from finishing
    // meanwhile.
    template <typename Action>
    void OnLiveHandle(Action action);

    std::string m_name;  // Deliberate: stored, not read
    pthread_t m_handle = 0;
    bool m_detached = false;
    bool m_joined = false;  // m_handle has been given back and names nothing any more
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_finished{false};
    std::atomic<long> m_exitCode{0};
    Gate m_doneGate;   // opened when the thread has finished
    Gate m_begunGate;  // opened by the first line of the thread

    static_assert(std::atomic<bool>::is_always_lock_free);
    static_assert(std::atomic<long>::is_always_lock_free);
};
