#pragma once

// Zeros for a gather list. A sensor's record can claim more bytes than it holds, and the peers
// count on the length that it claims. What is missing goes out as zeros, which take no memory: all
// pieces of a list point at one shared block. docs/decisions/0003-lying-lengths.md has the reasons.
//
// Owner: the block belongs to the program and never changes.
//
// Threads: any.

#include <sys/uio.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ring/event_queue.h"

// Bytes of the shared block.
inline constexpr uint32_t kZeroBlockBytes = 0x10000;

// The most zeros that are gathered, in bytes. No message with as many fits into a ring of the event
// queue, and no datagram can be that long, so a larger claim is refused for its length alone.
inline constexpr uint32_t kMostZeros = kEventQueueFirstRingSize;
static_assert(kMostZeros > kEventQueueFirstRingSize - kShmRingHeaderSize);
static_assert(kMostZeros % kZeroBlockBytes == 0);

inline constexpr uint32_t kMostZeroPieces = kMostZeros / kZeroBlockBytes;

// kZeroBlockBytes zeros.
[[nodiscard]] const std::byte* ZeroBlock();

// How many pieces GatherZeros makes of `count` bytes: 0 to kMostZeroPieces.
[[nodiscard]] constexpr uint32_t ZeroPieceCount(uint32_t count) {
    const uint32_t bytes = std::min(count, kMostZeros);
    return bytes / kZeroBlockBytes + (bytes % kZeroBlockBytes != 0 ? 1 : 0);
}

// Writes the pieces of `count` zeros, of kMostZeros at most, to the output iterator `out`. Returns
// the iterator after the last piece.
template <class Out>
Out GatherZeros(uint32_t count, Out out) {
    for (uint32_t left = std::min(count, kMostZeros); left > 0;) {
        const uint32_t bytes = std::min(left, kZeroBlockBytes);
        // The readers of a list only read; iovec has no const form.
        *out++ = iovec{const_cast<std::byte*>(ZeroBlock()), bytes};
        left -= bytes;
    }
    return out;
}
