#pragma once

// `tarnctl packetlog`: the packet logging daemon where there is no other. It shows the requests
// that come to its control socket and writes the packets that come with them, or through a ring,
// into capture files, of which it keeps as many as it may.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/monitor.h"
#include "tarnctl/packetlog/capture_retention.h"

namespace tarnctl {

struct PacketLogOptions : MonitorOptions {
    std::string directory;               // of the capture files; there already
    std::string format = "pcap";         // as CaptureFormatFrom takes it
    int linkType = 1;                    // of the capture files; 1 is Ethernet
    KeepLimits keep;                     // what stays in the directory
    uint64_t newFileBytes = 64U << 20U;  // size of the file of all packets; above 0
    std::string group;         // that gets the files, as a name or a number; empty: the user's own
    bool quiet = false;        // shows no messages
    int ring = -1;             // number of the writer whose ring is drained as well; -1: none
    uint64_t drop = 0;         // so many of the first datagrams are read and thrown away
    bool stopReading = false;  // the socket is there and nothing is ever read from it
    std::string socketPath = tarn::paths::kPacketLogSocket;  // not options; tests use their own
    std::string ringPath;                                    // empty: the ring of that number
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddPacketLogCommand(CLI::App& app, PacketLogOptions& options);

// Receives until the options' end or StopRequested(). Messages go to `out`, all else to `err`. With
// a limit in `keep` a hangup begins the files anew. Returns an exit status: a failure when the
// socket, the ring or a capture file cannot be had at the start, when a packet could not be kept,
// when `out` takes no more, or when a datagram or record was malformed.
[[nodiscard]] int RunPacketLog(const PacketLogOptions& options, std::ostream& out,
                               std::ostream& err);

}  // namespace tarnctl
