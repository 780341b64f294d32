#pragma once

// Counts the calls that this executable makes of the C library's allocator, also those from inside
// the library itself. A test asks it about code that may interrupt the allocator.
//
// Threads: each thread counts its own.

#include <cstdint>

// Calls of malloc, calloc and realloc by the calling thread so far.
uint64_t MallocCount();

// False where a sanitizer has an allocator of its own: nothing is counted then.
bool MallocIsCounted();
