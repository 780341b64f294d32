#pragma once

// Counts the allocations of the calling thread, for tests of code that must make none.
//
// Threads: each thread counts its own.

#include <cstdint>

// Calls of operator new so far. Stays 0 where a sanitizer has an allocator of its own.
std::uint64_t AllocationCount();
