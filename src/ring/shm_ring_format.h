#pragma once

// The ring file that one writing and one reading process map. docs/formats/shm_ring.md describes
// the format in full; all words are 32-bit unsigned in host byte order.
//
//   file offset  size           field
//   0            4              read index: ring offset of the next message to read
//   4            4              write index: ring offset at which the next message is placed
//   8            file size - 8  data ring
//
//   message at   size  field
//   i            4     length word: the number of body bytes; 0 means that there is no message here
//   i + 4        L     body; it continues at ring offset 0 where it reaches the end of the ring
//   after it     0..3  padding up to the next multiple of 4
//
// Threads: plain values; shm_event_pipe.h says in which order the two sides access the words.

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct ShmRingHeader {
    uint32_t readIndex;   // stored by the reader
    uint32_t writeIndex;  // stored by the writer
};

static_assert(sizeof(ShmRingHeader) == 8);
static_assert(offsetof(ShmRingHeader, readIndex) == 0);
static_assert(offsetof(ShmRingHeader, writeIndex) == 4);
static_assert(std::is_trivially_copyable_v<ShmRingHeader>);
static_assert(std::is_standard_layout_v<ShmRingHeader>);
static_assert(std::has_unique_object_representations_v<ShmRingHeader>);

// Every index, length word and message start is aligned to a word.
inline constexpr uint32_t kShmRingWordSize = 4;
inline constexpr uint32_t kShmRingHeaderSize = sizeof(ShmRingHeader);
// The header and a ring of one word; a smaller file has no place for a terminator.
inline constexpr uint32_t kShmRingSmallestFile = kShmRingHeaderSize + kShmRingWordSize;

// A pair is two ring files under one base name.
inline constexpr const char* kShmRingFirstSuffix = "-0";
inline constexpr const char* kShmRingSecondSuffix = "-1";

// The next multiple of 4, in the arithmetic of the number's own width.
template <typename Unsigned>
constexpr Unsigned ShmRingRoundUp(Unsigned bytes) {
    static_assert(std::is_unsigned_v<Unsigned>);
    return (bytes + (kShmRingWordSize - 1)) & ~static_cast<Unsigned>(kShmRingWordSize - 1);
}
