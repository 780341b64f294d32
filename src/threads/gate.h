#pragma once

// A flag with a condition variable and a mutex: while it is closed, waiters block.
//
// A Thread opens one on its way out, which is how a join can give up after a time; a derived
// class may keep gates of its own. The owner calls Init before and Destroy after all other use.
//
// Threads: any thread may call any operation between Init and Destroy. Both waits are cancellation
// points; a cancelled waiter leaves the mutex free.

#include <pthread.h>
#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "threads/mutex_lock.h"

// The absolute time that lies timeoutMs milliseconds after `now`.
[[nodiscard]] timespec DeadlineAfter(const timeval& now, uint64_t timeoutMs);

// The same from the present moment of the real-time clock, which is the clock that the timed
// waits of this program use. All zero, a time long past, when the clock cannot be read.
[[nodiscard]] timespec DeadlineFromNow(uint64_t timeoutMs);

class Gate {
  public:
    // Makes an open gate.
    void Init();
    void Destroy();

    void Close();
    // Wakes all waiters when broadcast is true, else one.
    void Open(bool broadcast);

    // True when the gate is open, false when the wait itself failed.
    [[nodiscard]] bool Wait();
    // The same for at most timeoutMs milliseconds; false also when the time ran out.
    [[nodiscard]] bool Wait(unsigned timeoutMs);

    [[nodiscard]] bool IsOpen();

    // Calls `action` with the gate's mutex held if the gate is closed, so that nobody can open it
    // meanwhile. True if it did. The action must neither wait nor touch the gate.
    template <typename Action>
    bool WhileClosed(Action action);

  private:
    bool m_closed = false;  // guarded by m_mutex
    pthread_cond_t m_cond{};
    pthread_mutex_t m_mutex{};
};

template <typename Action>
bool Gate::WhileClosed(Action action) {
    const MutexLock lock(m_mutex);
    if (!m_closed) {
        return false;
    }
    action();
    return true;
}
