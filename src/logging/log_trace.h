#pragma once

// What the two sinks of the log have in common: a level of their own.
//
// Threads: the level may be set and read by any thread at any time.

#include <atomic>

#include "logging/log_level.h"

class LogTrace {
  public:
    LogTrace() = default;
    LogTrace(const LogTrace&) = delete;
    LogTrace& operator=(const LogTrace&) = delete;
    virtual ~LogTrace();

    // Stores the number unchanged. Messages of a higher level do not pass this sink.
    virtual void SetLevel(int level);
    virtual int GetLevel() const;

  protected:
    // One comparison; every writing operation of a sink begins with it.
    bool Passes(int level) const { return level <= m_level.load(std::memory_order_relaxed); }

    std::atomic<int> m_level{log_level::kInfo};
    static_assert(std::atomic<int>::is_always_lock_free);
};
