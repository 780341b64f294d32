#pragma once

// How the daemon and all that is around it are at one moment, as a value. Every reading has its
// source; what cannot be had is unknown, with the reason.
//
// The collector looks and never touches: no FIFO is opened by its name, nothing is taken from a
// semaphore, a ring or a socket, and no file is opened for writing. It works while parts are
// missing.
//
// Threads: one at a time.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/health/health_places.h"
#include "tarnctl/health/loss_kinds.h"
#include "tarnctl/health/process_table.h"
#include "tarnctl/health/reading.h"

namespace tarnctl {

using Holders = std::vector<Holder>;

struct ThreadHealth {
    int number = 0;
    char state = '?';  // as the kernel has it: S sleeps, R runs, D waits for a disk, T stopped
    double cpuSeconds = 0.0;  // since it began
    double startTime = 0.0;   // in seconds since the epoch
};

struct DaemonHealth {
    Reading<int> pidFileNumber;  // what the PID file says
    Reading<bool> isRunning;
    Reading<int> pid;
    Reading<int> others;        // further processes of this name
    Reading<double> startTime;  // in seconds since the epoch
    Reading<double> ageSeconds;
    Reading<uint64_t> memoryBytes;
    Reading<std::vector<ThreadHealth>> threads;
};

struct FifoHealth {
    std::string path;
    Reading<bool> isThere;
    Reading<Holders> readers;
    Reading<Holders> writers;
    Reading<uint64_t> unreadBytes;
    Reading<uint64_t> capacityBytes;
};

enum class RingMotion { kEmpty, kMoving, kWaiting, kStuck };

struct RingHealth {
    std::string path;
    Reading<bool> isThere;
    Reading<uint64_t> sizeBytes;   // of the data ring
    Reading<uint32_t> readIndex;   // as it is in the file
    Reading<uint32_t> writeIndex;  // likewise
    Reading<uint64_t> usedBytes;
    Reading<uint64_t> messages;  // that wait
    Reading<RingMotion> motion;  // of two looks
    std::string stuckReason;     // of this look alone; empty when a reader can go on
};

struct QueueHealth {
    Reading<int> channel;
    std::vector<RingHealth> rings;
    Reading<Holders> readers;  // who has the first ring open, but for the daemon
    Reading<int> semaphore;    // posts that wait
};

struct PeerHealth {
    PeerPlace place;
    Reading<bool> isThere;       // the socket's file
    Reading<std::string> owner;  // of the file, with its mode
    Reading<bool> isListening;   // somebody receives at it
    Reading<Holders> listeners;
};

struct FileHealth {
    std::string name;  // "config" or "events"
    std::string path;
    Reading<double> modifiedTime;  // in seconds since the epoch
    Reading<bool> isNewer;         // than what is in force
};

struct LossHealth {
    const LossKind* kind = nullptr;  // borrowed from LossKinds()
    uint64_t count = 0;              // in the part of the log that was read
    uint64_t recentCount = 0;        // of these, within the time that counts
    double lastTime = 0.0;           // in seconds since the epoch; 0 where there was none
};

struct LogHealth {
    std::string path;
    Reading<bool> isWritten;     // the daemon has it open
    Reading<double> firstTime;   // of the oldest line that was read
    Reading<double> lastTime;    // of the newest line
    Reading<double> reloadTime;  // of the last load that the log tells of
    Reading<std::vector<LossHealth>> losses;
};

struct RoomHealth {
    std::string path;
    std::string purpose;
    Reading<uint64_t> freeBytes;
    uint64_t neededBytes = 0;
};

struct Health {
    double time = 0.0;  // of the look, in seconds since the epoch
    DaemonHealth daemon;
    FifoHealth alerts;
    FifoHealth errors;
    QueueHealth queue;
    std::vector<PeerHealth> peers;
    Reading<double> loadTime;  // of the last look of the daemon at its files
    std::vector<FileHealth> files;
    LogHealth log;
    std::vector<RoomHealth> rooms;
};

class HealthCollector {
  public:
    // Losses of the last `lossSeconds` count as recent.
    HealthCollector(HealthPlaces places, double lossSeconds);

    // Looks at everything. From the second look on the motion of the rings is known.
    [[nodiscard]] Health Look();

  private:
    const HealthPlaces m_places;
    const double m_lossSeconds;
    std::optional<Health> m_previous;
};

}  // namespace tarnctl
