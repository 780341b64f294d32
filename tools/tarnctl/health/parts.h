#pragma once

// The pieces of the collector, one for each kind of thing that it looks at. health.h describes what
// they fill in.
//
// Threads: one at a time.

#include <sys/stat.h>

#include <string>

#include "tarnctl/health/health.h"

namespace tarnctl {

// "/proc/1234/fd: Permission denied; run this as the superuser", or what else fits the errno.
[[nodiscard]] std::string LookFailure(const std::string& path, int error);

// Why holders may be missing although none was found.
[[nodiscard]] std::string HoldersHidden();

// `bootTime` is when the machine started, in seconds since the epoch.
[[nodiscard]] DaemonHealth LookAtDaemon(const HealthPlaces& places, const ProcessTable& processes,
                                        double bootTime, double now);

// `daemon` is the process whose descriptor shows how full the FIFO is; 0 for none.
[[nodiscard]] FifoHealth LookAtFifo(const std::string& path, const ProcessTable& processes,
                                    int daemon);

[[nodiscard]] QueueHealth LookAtQueue(const HealthPlaces& places, const ProcessTable& processes,
                                      Reading<int> channel, int daemon);
// Fills in what only two looks can tell.
void CompareQueues(const QueueHealth& before, QueueHealth& now);

[[nodiscard]] PeerHealth LookAtPeer(const HealthPlaces& places, const PeerPlace& place,
                                    const ProcessTable& processes);

[[nodiscard]] LogHealth LookAtLog(const std::string& path, const ProcessTable& processes,
                                  int daemon, double recentSince);

// `loadTime` is when the daemon looked at its files last.
[[nodiscard]] FileHealth LookAtFile(const std::string& name, const std::string& path,
                                    const Reading<double>& loadTime);

[[nodiscard]] RoomHealth LookAtRoom(const std::string& path, const std::string& purpose,
                                    uint64_t neededBytes);

// The file names on the daemon's command line, and what its main file says.
struct DaemonSettings {
    std::string configFile;
    std::string eventFile;
    std::string logFile;
    Reading<int> channel;
    int logLevel = 0;
    uint64_t logBytes = 0;  // after which the log rotates
};
[[nodiscard]] DaemonSettings LookAtSettings(const HealthPlaces& places,
                                            const ProcessTable& processes, int daemon);

}  // namespace tarnctl
