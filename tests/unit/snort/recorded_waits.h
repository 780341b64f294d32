#pragma once

// Records what the code under test asks of `sleep` and `select`, in this executable and while an
// object lives, so that a test knows how long a wait is meant to be. The waits take place as ever,
// and a thread can be cancelled in them.
//
// Threads: any thread may wait; one object at a time.

#include <functional>
#include <vector>

class RecordedWaits {
  public:
    RecordedWaits();
    ~RecordedWaits();
    RecordedWaits(const RecordedWaits&) = delete;
    RecordedWaits& operator=(const RecordedWaits&) = delete;

    [[nodiscard]] static std::vector<long> Sleeps();   // seconds, in the order of the calls
    [[nodiscard]] static std::vector<long> Selects();  // milliseconds, in the order of the calls
};

// Does something when the next `select` is called, before it waits. An empty function takes it
// back. For tests of one thread.
void BeforeTheNextSelect(std::function<void()> action);
