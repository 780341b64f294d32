#pragma once

// Counts the allocations of the calling thread, for tests of code that must make none, and lets one
// fail, for tests of code that must survive it.
//
// Threads: each thread counts and fails its own.

#include <cstdint>

// Calls of operator new so far. Stays 0 where a sanitizer has an allocator of its own.
uint64_t AllocationCount();

// The next call of operator new throws std::bad_alloc; those after it succeed again. False where a
// sanitizer has an allocator of its own: nothing fails then.
[[nodiscard]] bool FailNextAllocation();
