#pragma once

// A channel of an event queue of this test process's own: the daemon's end to write with, and no
// trace of it left afterwards.
//
// Threads: the test's own.

#include <semaphore.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "paths.h"
#include "ring/event_queue.h"
#include "unit/tarnctl/rings/crm_reports.h"

class TestChannel {
  public:
    static constexpr int kChannel = 7;

    TestChannel() : m_name("TarnctlTest" + std::to_string(getpid())) { Remove(); }
    ~TestChannel() {
        m_writer.reset();
        Remove();
    }
    TestChannel(const TestChannel&) = delete;
    TestChannel& operator=(const TestChannel&) = delete;

    const char* Name() const { return m_name.c_str(); }
    std::string SemaphoreName() const {
        return tarn::paths::kEventQueueSemaphore + m_name + ".sem";
    }
    std::string RingPath(int ring) const {
        return tarn::paths::kEventQueueBase + m_name + std::to_string(kChannel) + "-" +
               std::to_string(ring);
    }

    // What the daemon does with a report: write, then post. False when the ring took nothing.
    bool Send(const CrmBytes& bytes, size_t ring = 0) {
        const auto length = static_cast<uint32_t>(bytes.size());
        if (Ring(ring).write(bytes.data(), &length) != PIPE_OK) {
            return false;
        }
        sem_post(m_writer->m_pSem);
        return true;
    }

    // The daemon's own end of a ring.
    ShmEventPipe& Ring(size_t ring) { return Writer().m_pairs[0]->m_aPipes[ring]; }

    // Posts that wait in the semaphore.
    int Posts() {
        int posts = -1;
        sem_getvalue(Writer().m_pSem, &posts);
        return posts;
    }

  private:
    EventQueue& Writer() {
        if (m_writer == nullptr) {
            m_writer = std::make_unique<EventQueue>(Name(), kChannel, 1);
            if (m_writer->Open() != 0) {
                throw std::runtime_error("the event queue of the test cannot be opened");
            }
        }
        return *m_writer;
    }

    void Remove() const {
        unlink(RingPath(0).c_str());
        unlink(RingPath(1).c_str());
        sem_unlink(SemaphoreName().c_str());
    }

    const std::string m_name;
    std::unique_ptr<EventQueue> m_writer;
};
