#pragma once

// How far the feeder has come, in a file that survives a crash and a power cut.
//
// The place in the spool is that of the first record that may still be inside the daemon; all
// before it has its report. The place in the ring says up to where reports had been seen by then,
// so that a feeder that comes after can find out which alerts after the bookmark had theirs.
//
// Threads: one at a time.

#include <cstdint>
#include <optional>
#include <string>

#include "tarnctl/feed/report_watch.h"
#include "tarnctl/feed/spool_file.h"

namespace tarnctl {

struct RejectsPlace {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;  // bytes that belong to alerts before the bookmark

    bool operator==(const RejectsPlace&) const = default;
};

struct Bookmark {
    std::optional<SpoolPlace> spool;      // empty: nothing has been read yet
    std::optional<SpoolPlace> refeed;     // while rejected alerts are fed again
    std::optional<RingMark> ring;         // empty: the ring was not known
    std::optional<RejectsPlace> rejects;  // empty: nothing has been rejected
    bool isSettled = true;                // nothing after the places was inside the daemon

    bool operator==(const Bookmark&) const = default;
};

// Writes the bookmark so that it is on the disk when the call returns. An empty text, or a reason;
// the old bookmark is then as it was.
[[nodiscard]] std::string SaveBookmark(const std::string& path, const Bookmark& bookmark);

// Reads it. A file that is not there is a bookmark at the beginning. An empty text, or a reason.
[[nodiscard]] std::string LoadBookmark(const std::string& path, Bookmark& bookmark);

}  // namespace tarnctl
