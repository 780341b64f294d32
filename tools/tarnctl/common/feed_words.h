#pragma once

// What is said on the control socket of a feeder: one word a line from the client, one JSON object
// a line in answer to each.
//
// A hold belongs to the connection that asked for it and ends with it at the latest, so that a
// client that dies does not stop the feed for good.
//
// Threads: constants.

namespace tarnctl {

inline constexpr const char* kFeedCounters = "counters";  // the counters
inline constexpr const char* kFeedHold = "hold";          // feed nothing more; the counters
inline constexpr const char* kFeedRelease = "release";    // feed again
// Feed again; the daemon has read its files. What has changed of the entries comes in the answer.
inline constexpr const char* kFeedReloaded = "reloaded";

// What is added to the bookmark's path for the socket's.
inline constexpr const char* kFeedSocketEnding = ".sock";

}  // namespace tarnctl
