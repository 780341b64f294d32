#pragma once

// What the feeder has done since it began, as text, JSON and for Prometheus.
//
// Threads: plain values.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tarnctl {

struct FeedCounters {
    uint64_t records = 0;           // put into the FIFO
    uint64_t bytes = 0;             // likewise
    uint64_t alerts = 0;            // put into the FIFO, each time that one was
    uint64_t reports = 0;           // seen of them
    uint64_t fedAgain = 0;          // alerts that were fed more than once, each time
    uint64_t lostInside = 0;        // of these, those of which a daemon that went on made no report
    uint64_t reportedBefore = 0;    // alerts after the bookmark that had their report already
    uint64_t duplicates = 0;        // reports of alerts that had one before
    uint64_t foreignReports = 0;    // of alerts that somebody else has fed
    uint64_t rejectedAlerts = 0;    // without an entry
    uint64_t rejectedRecords = 0;   // that would end the daemon or fit nowhere
    uint64_t foreignRecords = 0;    // of kinds that the daemon does not take
    uint64_t cutRecords = 0;        // whose tail never came
    uint64_t filesAnew = 0;         // cut or written anew
    uint64_t filesVanished = 0;     // gone before all was read
    uint64_t filesDamaged = 0;      // in which no next record can be found
    uint64_t daemonEnds = 0;        // the daemon died or was stopped
    uint64_t readerCloses = 0;      // the daemon closed the FIFO and opened it again
    uint64_t unsureCounts = 0;      // the ring was not as the last look had left it
    uint64_t bookmarks = 0;         // written
    uint64_t bookmarkFailures = 0;  // not written
    // Now, not since the beginning.
    uint64_t underWay = 0;
    uint64_t mostUnderWay = 0;
    bool isHeld = false;
    std::string waitingFor;  // empty: nothing
};

[[nodiscard]] nlohmann::ordered_json AsJson(const FeedCounters& counters);
[[nodiscard]] std::string AsPrometheus(const FeedCounters& counters);
// One line for a person.
[[nodiscard]] std::string AsText(const FeedCounters& counters);

}  // namespace tarnctl
