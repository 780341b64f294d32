#include "threads/gate.h"

namespace {

constexpr long kNanosecondsPerSecond = 1000000000L;

}  // namespace

timespec DeadlineAfter(const timeval& now, uint64_t timeoutMs) {
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec = now.tv_usec * 1000L + static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosecondsPerSecond;
    }
    return deadline;
}

timespec DeadlineFromNow(uint64_t timeoutMs) {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        return timespec{};
    }
    return DeadlineAfter(now, timeoutMs);
}

void Gate::Init() {
    m_closed = false;
    if (pthread_mutex_init(&m_mutex, nullptr) == 0) {
        pthread_cond_init(&m_cond, nullptr);
    }
}

void Gate::Destroy() {
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
}

void Gate::Close() {
    const MutexLock lock(m_mutex);
    m_closed = true;
}

void Gate::Open(bool broadcast) {
    const MutexLock lock(m_mutex);
    m_closed = false;
    if (broadcast) {
        pthread_cond_broadcast(&m_cond);
    } else {
        pthread_cond_signal(&m_cond);
    }
}

bool Gate::Wait() {
    const MutexLock lock(m_mutex);
    while (m_closed) {
        if (pthread_cond_wait(&m_cond, &m_mutex) != 0) {
            return false;
        }
    }
    return true;
}

bool Gate::Wait(unsigned timeoutMs) {
    const timespec deadline = DeadlineFromNow(timeoutMs);
    const MutexLock lock(m_mutex);
    while (m_closed) {
        if (pthread_cond_timedwait(&m_cond, &m_mutex, &deadline) != 0) {
            return false;
        }
    }
    return true;
}

bool Gate::IsOpen() {
    const MutexLock lock(m_mutex);
    return !m_closed;
}
