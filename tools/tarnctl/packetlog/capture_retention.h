#pragma once

// How many capture files stay: limits of age, size and count for the whole folder.
//
// Only files with the name of a capture file are deleted, the oldest first, and never those that
// are being written. Of the files of one event, or of all packets, their numbers say which is
// older, and their times only how old: a clock that was set back in between does not turn the order
// round. A file from the future gets the present time, so that it ages from now on.
//
// Threads: one at a time for a folder.

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "tarnctl/packetlog/capture_folder.h"

namespace tarnctl {

// 0 is no limit.
struct KeepLimits {
    uint32_t days = 0;   // since a file was written to last
    uint64_t bytes = 0;  // of all files together
    uint64_t files = 0;

    [[nodiscard]] bool AreNone() const { return days == 0 && bytes == 0 && files == 0; }
};

struct KeepOutcome {
    uint64_t files = 0;  // deleted
    uint64_t bytes = 0;  // of these
    std::string error;   // why it could not be done, or not wholly; empty: it was
};

// Deletes what is over the limits. `inUse` are the files being written, which count but stay.
[[nodiscard]] KeepOutcome KeepWithin(const KeepLimits& limits, const std::string& directory,
                                     time_t now, const std::vector<CaptureName>& inUse);

}  // namespace tarnctl
