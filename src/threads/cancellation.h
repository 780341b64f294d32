#pragma once

// Scope guards for the cancel state of the calling thread.
//
// A thread of the daemon that does not stop in time is cancelled. A cancelled thread unwinds from
// the call it waits in, so a cancel may only land where no lock is held and nothing is half done.
// Code that holds a lock or writes a record therefore runs under CancellationOff, and the few long
// waits open a window for it with CancellationOn. The guards nest; each restores what it found.
//
// Threads: each guard belongs to the thread that made it.

#include <pthread.h>

class CancellationGuard {
  public:
    CancellationGuard(const CancellationGuard&) = delete;
    CancellationGuard& operator=(const CancellationGuard&) = delete;

  protected:
    explicit CancellationGuard(int state) { pthread_setcancelstate(state, &m_former); }
    ~CancellationGuard() { pthread_setcancelstate(m_former, nullptr); }

  private:
    int m_former = PTHREAD_CANCEL_ENABLE;
};

// No cancel lands while this guard lives; one that comes stays pending.
class CancellationOff : public CancellationGuard {
  public:
    CancellationOff() : CancellationGuard(PTHREAD_CANCEL_DISABLE) {}
};

// A pending or coming cancel may land at a cancellation point while this guard lives.
class CancellationOn : public CancellationGuard {
  public:
    CancellationOn() : CancellationGuard(PTHREAD_CANCEL_ENABLE) {}
};
