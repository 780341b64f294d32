#include "ring/event_queue.h"

#include <fcntl.h>

#include <cerrno>

#include "paths.h"

namespace {

// Deliberate: others may write and nobody else may do anything, the owner included. The peer runs
// with every right, and the mode is part of what both processes agree on.
constexpr mode_t kSemaphoreMode = 2;
constexpr unsigned kSemaphoreStart = 0;

std::string SemaphoreName(const char* szName) {
    return std::string(tarn::paths::kEventQueueSemaphore) + szName + ".sem";
}

}  // namespace

EventQueue::EventQueue(const char* szName, int32_t iIndex, int32_t /*iIgnored*/)
    : m_strSemName(SemaphoreName(szName)), m_iWriterSide(1) {
    AddPair(WRITER, szName, iIndex, false);
}

EventQueue::EventQueue(const char* szName, ForReader /*eSide*/, int32_t iCount)
    : m_strSemName(SemaphoreName(szName)), m_iWriterSide(0) {
    for (int32_t iIndex = 0; iIndex < iCount; ++iIndex) {
        AddPair(READER, szName, iIndex, true);
    }
}

EventQueue::~EventQueue() {
    m_pairs.clear();
    if (m_pSem != nullptr) {
        sem_close(m_pSem);
    }
}

void EventQueue::AddPair(ShmPipeRole eRole, const char* szName, int32_t iIndex, bool bRemoveStale) {
    const std::string strBase = tarn::paths::kEventQueueBase + (szName + std::to_string(iIndex));
    m_pairs.push_back(std::make_unique<ShmEventPipePair>(
        eRole, strBase.c_str(), kEventQueueSecondRingSize, kEventQueueFirstRingSize, bRemoveStale));
    ++m_uPairCount;
}

int EventQueue::Open() {
    sem_t* const pSem = sem_open(m_strSemName.c_str(), O_CREAT, kSemaphoreMode, kSemaphoreStart);
    if (pSem == SEM_FAILED) {
        const int error = errno;
        return error;
    }
    if (m_pSem != nullptr) {
        sem_close(m_pSem);
    }
    m_pSem = pSem;
    bool bAllOpen = true;
    for (const auto& pPair : m_pairs) {
        bAllOpen = pPair->Open() == 0 && bAllOpen;
    }
    return bAllOpen ? 0 : -1;
}

int EventQueue::Close() {
    bool bAllClosed = true;
    for (const auto& pPair : m_pairs) {
        bAllClosed = pPair->Close() == 0 && bAllClosed;
    }
    return bAllClosed ? 0 : 1;
}

int EventQueue::Destroy() {
    bool bAllGone = true;
    for (const auto& pPair : m_pairs) {
        bAllGone = pPair->Destroy() == 0 && bAllGone;
    }
    // The reader outlives its writers, so the semaphore that they share is its to remove.
    if (m_iWriterSide == 0) {
        sem_unlink(m_strSemName.c_str());
    }
    return bAllGone ? 0 : 1;
}
