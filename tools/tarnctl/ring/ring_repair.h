#pragma once

// Mends a ring that is in a state which none of its sides leaves, and empties a ring.
//
// Threads: one at a time. Other processes may use the ring meanwhile; see RepairRing().

#include <chrono>
#include <cstdint>
#include <string>

#include "tarnctl/rings/known_rings.h"
#include "tarnctl/rings/ring_state.h"

namespace tarnctl {

struct RepairOptions {
    std::chrono::milliseconds interval{500};  // between the two looks
    int writer = 0;  // the number of a process that writes in the daemon's place; 0: there is none
    bool isForced = false;  // processes that this one may not look into do not have the ring
};

enum class RepairOutcome {
    kHealthy,   // there was nothing to repair, and nothing was touched
    kRepaired,  // the ring goes on
    kRefused,   // nothing was touched; the text says why
};

struct Repair {
    RepairOutcome outcome = RepairOutcome::kRefused;
    RingState state;         // what was found
    std::string text;        // what was done and what was lost, or why nothing was done
    uint64_t lostBytes = 0;  // of messages that waited, length words and padding included
};

// Finds by two looks that the ring is stuck, makes sure that no reader runs, and mends it. The
// writer may run and is not disturbed, unless its own index is at fault. A ring that is not stuck
// is not touched.
//
// Where the messages of the ring say themselves how long they are, a message that its reader did
// not finish gets its length word back, and nothing is lost. Else all that waits is lost, as with a
// reader that meets a length that cannot be: where the next message begins is not known, and to
// guess would be to deliver what somebody put into a packet.
[[nodiscard]] Repair RepairRing(const RingPlace& place, const RepairOptions& options);

// Stores 0 in both indexes, by the daemon's own reset. Refused while a process has the ring mapped
// to write.
[[nodiscard]] Repair ResetRing(const RingPlace& place, const RepairOptions& options);

}  // namespace tarnctl
