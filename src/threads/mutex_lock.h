#pragma once

// Holds a POSIX mutex for the life of the object, and releases it on every way out, the unwinding
// of a cancelled thread included.
//
// Threads: each guard belongs to the thread that made it.

#include <pthread.h>

class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t& mutex)
        : m_mutex(mutex), m_owns(pthread_mutex_lock(&mutex) == 0) {}
    ~MutexLock() {
        if (m_owns) {
            pthread_mutex_unlock(&m_mutex);
        }
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // False when the mutex checks for errors and the calling thread holds it already.
    [[nodiscard]] bool Owns() const { return m_owns; }

  private:
    pthread_mutex_t& m_mutex;
    const bool m_owns;
};
