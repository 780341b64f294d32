#pragma once

// Where the collector looks. The defaults are the daemon's own paths; tests use folders of their
// own.
//
// Threads: plain values.

#include <optional>
#include <string>
#include <vector>

namespace tarnctl {

// A socket at which one of the daemon's peers receives.
struct PeerPlace {
    std::string name;  // as in `--without`
    std::string path;
    std::string carries;  // what is lost without it
};

struct HealthPlaces {
    std::string proc;
    std::string pidFile;
    std::string stateFile;
    std::string configFile;  // of a daemon that does not run, or whose command line names none
    std::string eventFile;   // likewise
    std::string alertFifo;
    std::string errorFifo;
    std::string ringBase;   // the channel's number follows, then "-0" or "-1"
    std::string semaphore;  // as a file
    std::vector<PeerPlace> peers;

    // What the configuration says otherwise.
    std::optional<int> channel;
    std::optional<std::string> logFile;

    // When the machine started, in seconds since the epoch; the clocks say it otherwise.
    std::optional<double> bootTime;
};

// The places that the daemon uses.
[[nodiscard]] HealthPlaces DaemonHealthPlaces();

// The names that `--without` takes: the peers', and those of what the rings and FIFOs lead to.
inline constexpr const char* kPartCrm = "crm";
inline constexpr const char* kPartMessages = "messages";
inline constexpr const char* kPartSecmgr = "secmgr";
inline constexpr const char* kPartPacketlog = "packetlog";

}  // namespace tarnctl
