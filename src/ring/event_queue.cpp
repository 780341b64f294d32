#include "ring/event_queue.h"

#include <fcntl.h>

#include <cerrno>

#include "paths.h"

namespace {

// Deliberate: only others may write, and nobody else may do anything, not even the owner. The peer
// is privileged, and the mode is part of what both processes agree on.
constexpr mode_t kSemaphoreMode = 2;
constexpr unsigned kSemaphoreStart = 0;

std::string SemaphoreName(const char* name) {
    return std::string(tarn::paths::kEventQueueSemaphore) + name + ".sem";
}

}  // namespace

EventQueue::EventQueue(const char* name, int32_t index, int32_t /*ignored*/)
    : m_strSemName(SemaphoreName(name)), m_iWriterSide(1) {
    AddPair(WRITER, name, index, false);
}

EventQueue::EventQueue(const char* name, ForReader /*side*/, int32_t count)
    : m_strSemName(SemaphoreName(name)), m_iWriterSide(0) {
    for (int32_t index = 0; index < count; ++index) {
        AddPair(READER, name, index, true);
    }
}

EventQueue::~EventQueue() {
    m_pairs.clear();
    if (m_pSem != nullptr) {
        sem_close(m_pSem);
    }
}

void EventQueue::AddPair(ShmPipeRole role, const char* name, int32_t index, bool removeStale) {
    const std::string base = tarn::paths::kEventQueueBase + (name + std::to_string(index));
    m_pairs.push_back(std::make_unique<ShmEventPipePair>(
        role, base.c_str(), kEventQueueSecondRingSize, kEventQueueFirstRingSize, removeStale));
    ++m_uPairCount;
}

int EventQueue::Open() {
    // Deliberate: a semaphore that is there keeps its count, posts that nobody took included. The
    // count belongs to both processes.
    sem_t* const semaphore =
        sem_open(m_strSemName.c_str(), O_CREAT, kSemaphoreMode, kSemaphoreStart);
    if (semaphore == SEM_FAILED) {
        const int error = errno;
        return error;
    }
    if (m_pSem != nullptr) {
        sem_close(m_pSem);
    }
    m_pSem = semaphore;
    bool allOpen = true;
    for (const auto& pair : m_pairs) {
        allOpen = pair->Open() == 0 && allOpen;
    }
    return allOpen ? 0 : -1;
}

int EventQueue::Close() {
    bool allClosed = true;
    for (const auto& pair : m_pairs) {
        allClosed = pair->Close() == 0 && allClosed;
    }
    return allClosed ? 0 : 1;
}

int EventQueue::Destroy() {
    bool allGone = true;
    for (const auto& pair : m_pairs) {
        allGone = pair->Destroy() == 0 && allGone;
    }
    // The reader outlives its writers, so the semaphore that they share is its to remove.
    if (m_iWriterSide == 0) {
        sem_unlink(m_strSemName.c_str());
    }
    return allGone ? 0 : 1;
}
