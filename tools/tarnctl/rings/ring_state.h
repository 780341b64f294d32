#pragma once

// Whether a ring can go on, or is in a state that none of its sides leaves.
//
// One look is not enough: for a moment a healthy ring looks as if it were stuck, while its reader
// is between the store of a length word and that of its index. A state that two looks find at the
// same place, some time apart, is one that stays.
//
// Threads: pure functions; the ring may move meanwhile.

#include <cstdint>
#include <string>

#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

enum class RingFault {
    kNone,
    kReadIndexOffGrid,    // the read index is no multiple of 4
    kReadIndexOutside,    // the read index is at or beyond the end of the ring
    kWriteIndexOffGrid,   // likewise the write index
    kWriteIndexOutside,   // likewise
    kNoLength,            // the indexes differ and the length word is 0
    kLengthBeyondRing,    // the length word is larger than the ring
    kLengthPastWriteEnd,  // the message reaches past the write index
};

// What is wrong with a ring, and where.
struct RingState {
    RingFault fault = RingFault::kNone;
    RingLook look;          // the head at that moment
    uint32_t at = 0;        // ring offset of the message at fault, or of the read index
    uint32_t length = 0;    // the length word there
    uint64_t messages = 0;  // whole messages in front of it; all that wait where nothing is wrong

    // The reader cannot take another message. Damage further on stops it only once it gets there.
    [[nodiscard]] bool IsStuck() const { return fault != RingFault::kNone && at == look.readIndex; }
};

// One look at a ring. Walks through all that waits.
[[nodiscard]] RingState LookAtState(RingWalker& walker);

// Whether two looks found the same fault at the same place, with the same index.
[[nodiscard]] bool IsSameFault(const RingState& first, const RingState& second);

// The name of a fault for programs, as in "no-length"; "none" where nothing is wrong.
[[nodiscard]] std::string FaultName(RingFault fault);

// The fault in a sentence with its numbers, and what it means for the two sides.
[[nodiscard]] std::string FaultText(const RingState& state);
[[nodiscard]] std::string FaultMeaning(const RingState& state);

}  // namespace tarnctl
