#pragma once

// Rings and a named semaphore that form one channel between processes: the writing process puts
// a message into a ring and posts the semaphore, the reading process waits on it and drains its
// rings. Names and sizes are shared with the reading process: docs/formats/event_queue.md.
//
// In the daemon CrmEventProducer owns the one queue there is, a writer's. It reaches the rings and
// the semaphore directly: write to a ring first, and post only what went in.
//
// Threads: the one thread of its owner; the semaphore alone may be used by several processes.

#include <semaphore.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ring/shm_event_pipe.h"

// File sizes in bytes of the two rings of each pair.
inline constexpr uint32_t kEventQueueFirstRingSize = 0x800000;
inline constexpr uint32_t kEventQueueSecondRingSize = 0x40000;

class EventQueue {
  public:
    // Says which side a queue is made for; that is all that this argument does.
    enum class ForReader { kTag };

    // A writer's queue: the one pair of this index. The last argument is ignored.
    EventQueue(const char* name, int32_t index, int32_t ignored);
    // A reader's queue: one pair for each index below count. Removes the ring files of an earlier
    // run, so a reader that starts drops what was written before.
    EventQueue(const char* name, ForReader side, int32_t count);
    // Closes rings and semaphore, and removes neither.
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Attaches to the semaphore, which is made if it is missing, and opens all pairs. 0 on success,
    // the errno of sem_open with no ring opened, or -1 when a ring failed: some may be open then.
    [[nodiscard]] int Open();
    // Closes all pairs; the semaphore stays open. 0, or 1 when a ring failed.
    int Close();
    // Removes the rings that Create made and, for a reader, the semaphore. 0, or 1 when a ring
    // failed.
    int Destroy();

    uint32_t m_uReserved = 0;   // Deliberate: stored, not read
    uint32_t m_uPairCount = 0;  // number of pairs; Deliberate: stored, not read
    std::vector<std::unique_ptr<ShmEventPipePair>> m_pairs;  // owned
    std::string m_strSemName;
    sem_t* m_pSem = nullptr;  // null until Open; given back by the destructor
    int32_t m_iWriterSide;    // 1 writer, 0 reader: whether Destroy leaves the semaphore
    ShmReportCallback m_pfnLog = nullptr;  // the owner's; Deliberate: stored, not read

  private:
    void AddPair(ShmPipeRole role, const char* name, int32_t index, bool removeStale);
};
