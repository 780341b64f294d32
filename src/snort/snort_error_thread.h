#pragma once

// The thread that runs SnortErrorReader, apart from the alert stream.
//
// TarnEngine makes it, starts it, and leaves it running over reloads.
//
// Threads: Stop and ForceQuit are for the owner's thread. The body runs with cancellation off but
// for the reader's waits and one point in each pass, so a cancel lands where nothing is half done
// and, since some passes do not wait at all, always within one pass.

#include <atomic>
#include <cstdint>

#include "threads/thread.h"

class SnortErrorThread : public Thread {
  public:
    // A `cpu` above 0 is the CPU to bind to; others leave the thread on the mask that it inherits.
    SnortErrorThread(const char* name, int32_t cpu);
    ~SnortErrorThread() override;

    // Returns 1. Heard within a pass of the reader, two seconds at most. Lost when it comes before
    // the body has begun.
    int Stop() override;
    // Returns 1. What the reader throws ends the body, and leaves the reader for the next start.
    int Run() override;

    // Cancels a running thread, waits for its end, and releases the reader.
    void ForceQuit();

  private:
    void BindToCpu() const;

    std::atomic<bool> m_stop{false};
    int32_t m_cpu;
};
