#pragma once

// Scope guards that make the log safe to call from anywhere: from code that looks at errno
// afterwards, from a thread that may be cancelled, and from a signal handler.
//
// Threads: each guard belongs to the thread that made it.

#include <pthread.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

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

namespace log_signals {

// The signals whose handlers log and can wait.
inline constexpr std::array kHeldBack{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR2};

// What a thread and the handlers that interrupt it share.
struct Inside {
    std::atomic<uint32_t> depth{0};  // UndisturbedByHandlers objects of the thread
    std::atomic<uint32_t> kept{0};   // a bit for each entry of kHeldBack
    std::array<siginfo_t, kHeldBack.size()> details{};  // of each signal that is kept
};

inline constinit thread_local Inside t_inside;

// Sends the kept signals of the calling thread to itself. Their handlers run before this returns.
void SendKept();

}  // namespace log_signals

// What a handler that logs does first, for it would wait forever for a lock that the thread it
// interrupted holds, be it a lock of the log or one inside localtime_r(). True: the handler returns
// at once. It runs again with the same `info` when the thread leaves the log. Of several signals
// of one kind the first is kept, as the system does with blocked signals. False for fault signals,
// which cannot wait. A null `info` is one without details.
[[nodiscard]] bool HoldBack(int signal, const siginfo_t* info);

// Keeps the handlers that call HoldBack out of a part of the log without a system call, and a
// cancel too. Handlers still interrupt the system calls within.
class UndisturbedByHandlers {
  public:
    UndisturbedByHandlers() { SetDepth(Depth() + 1); }
    UndisturbedByHandlers(const UndisturbedByHandlers&) = delete;
    UndisturbedByHandlers& operator=(const UndisturbedByHandlers&) = delete;
    ~UndisturbedByHandlers() {
        SetDepth(Depth() - 1);
        if (Depth() == 0 && log_signals::t_inside.kept.load(std::memory_order_relaxed) != 0) {
            log_signals::SendKept();
        }
    }

  private:
    static uint32_t Depth() { return log_signals::t_inside.depth.load(std::memory_order_relaxed); }
    static void SetDepth(uint32_t depth) {
        // The handlers run on the same thread: only the compiler must keep the order.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        log_signals::t_inside.depth.store(depth, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    const CancellationOff m_off;
};

// Blocks the signals of log_signals::kHeldBack, and a cancel. For calls of the C library that a
// signal would interrupt, or that have locks of their own: syslog() and what standard error needs.
class Uninterrupted {
  public:
    Uninterrupted() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : log_signals::kHeldBack) {
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

// Locks a mutex of the log; Guard is one of the two guards above. The mutex is of the type
// PTHREAD_MUTEX_ERRORCHECK: a fault signal cannot be held back, and when it strikes inside the log
// its handler finds the mutex held by its own thread. The lock then fails instead of waiting
// forever, and the handler goes on without it, since the process is about to end and its last
// lines are worth more than their neatness.
template <typename Guard>
class LogLock {
  public:
    explicit LogLock(pthread_mutex_t& mutex) : m_lock(mutex) {}
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;

    // False: the calling thread held the mutex already.
    [[nodiscard]] bool Owns() const { return m_lock.Owns(); }

  private:
    const Guard m_guard;  // from before the lock is taken until it is free again
    const MutexLock m_lock;
};

using FileLogLock = LogLock<UndisturbedByHandlers>;
using SysLogLock = LogLock<Uninterrupted>;
