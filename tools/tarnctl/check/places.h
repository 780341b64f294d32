#pragma once

// What the daemon will meet on this machine: its files, FIFOs, rings, semaphore and sockets.
//
// Threads: one at a time.

#include <cstdint>
#include <string>
#include <vector>

#include "tarnctl/check/finding.h"

namespace tarnctl {

// Where to look. The defaults are the daemon's own paths; tests use folders of their own.
struct Places {
    std::vector<std::string> fifos;
    std::vector<std::string> sockets;
    std::string ringBase;   // "-0" and "-1" follow
    std::string semaphore;  // as a file
    std::string logFile;
    std::string settingsFolder = "/proc/sys/fs";  // where the kernel shows its settings
};

// The daemon's own, for this channel of the CRM queue and this log file.
[[nodiscard]] Places DaemonPlaces(int channel, const std::string& logFile);

// Adds a finding for each thing that will fail for a daemon of the calling user.
void CheckPlaces(const Places& places, Findings& findings);

// A file that the daemon opens at its start. False where it cannot be read at all. A state file
// that is missing is no finding.
bool CheckFile(const std::string& path, bool isStateFile, Findings& findings);

}  // namespace tarnctl
