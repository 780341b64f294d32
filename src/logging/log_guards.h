#pragma once

// Scope guards that make the log safe to call from anywhere: from code that looks at errno
// afterwards, from a thread that may be cancelled, and from a signal handler.
//
// Threads: each guard belongs to the thread that made it.

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <initializer_list>

#include "threads/cancellation.h"
#include "threads/mutex_lock.h"

// Puts errno back, so that a caller may log first and look at errno afterwards.
class ErrnoKeeper {
  public:
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = m_errno; }

    [[nodiscard]] int Kept() const { return m_errno; }

  private:
    const int m_errno = errno;
};

// Holds back the signals whose handlers log: such a handler would wait forever for a lock that the
// thread it interrupted holds, be it a lock of the log or one inside syslog() or localtime_r().
// The same goes for a cancel, which would leave the lock behind. Both stay pending meanwhile.
class Uninterrupted {
  public:
    Uninterrupted() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR2}) {
            sigaddset(&signals, signal);
        }
        pthread_sigmask(SIG_BLOCK, &signals, &m_former);
    }
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;
    ~Uninterrupted() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); }

  private:
    const CancellationOff m_off;
    sigset_t m_former;
};

// Locks a mutex of the log. The mutex is of the type PTHREAD_MUTEX_ERRORCHECK: a fault signal
// cannot be held back, and when it strikes inside the log its handler finds the mutex held by its
// own thread. The lock then fails instead of waiting forever, and the handler goes on without it,
// since the process is about to end and its last lines are worth more than their neatness.
class LogLock {
  public:
    explicit LogLock(pthread_mutex_t& mutex) : m_lock(mutex) {}
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;

    // False: the calling thread held the mutex already.
    [[nodiscard]] bool Owns() const { return m_lock.Owns(); }

  private:
    const Uninterrupted m_uninterrupted;  // from before the lock is taken until it is free again
    const MutexLock m_lock;
};
