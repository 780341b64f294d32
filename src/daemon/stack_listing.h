#pragma once

// The listing of the calling thread's stack, for the two reports that show one.
//
// Threads: any thread, also in a signal handler. It allocates, so that a fault inside the allocator
// may leave its handler waiting; the stack is worth that risk.

#include <execinfo.h>
#include <sys/types.h>

#include <array>
#include <cstdlib>

// Calls header(number of frames), then line(index from 0, text) for each frame, at most kLimit of
// them; nothing at all when there is no stack to show. Inlined, so that it is no frame of its own.
template <int kLimit, typename Header, typename Line>
[[gnu::always_inline]] inline void ListStack(Header header, Line line) {
    std::array<void*, kLimit> frames{};
    const int count = backtrace(frames.data(), kLimit);
    if (count <= 0) {
        return;
    }
    char** const symbols = backtrace_symbols(frames.data(), count);
    if (symbols == nullptr) {
        return;
    }
    header(static_cast<ssize_t>(count));
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        line(i, symbols[i]);
    }
    std::free(symbols);
}
