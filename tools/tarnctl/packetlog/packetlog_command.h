#pragma once

// `tarnctl packetlog`: stands in for the packet logging daemon. It shows the requests that come to
// its control socket and writes the packets that come with them, or through a ring, into capture
// files.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/monitor.h"

namespace tarnctl {

struct PacketLogOptions : MonitorOptions {
    std::string directory;     // of the capture files; there already
    int linkType = 1;          // of the capture files; 1 is Ethernet
    int ring = -1;             // number of the writer whose ring is drained as well; -1: none
    uint64_t drop = 0;         // so many of the first datagrams are read and thrown away
    bool stopReading = false;  // the socket is there and nothing is ever read from it
    std::string socketPath = tarn::paths::kPacketLogSocket;  // not options; tests use their own
    std::string ringPath;                                    // empty: the ring of that number
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddPacketLogCommand(CLI::App& app, PacketLogOptions& options);

// Receives until the options' end or StopRequested(). Messages go to `out`, all else to `err`.
// Returns an exit status: a failure when the socket, the ring or a capture file cannot be had, when
// `out` takes no more, or when a datagram or record was malformed.
[[nodiscard]] int RunPacketLog(const PacketLogOptions& options, std::ostream& out,
                               std::ostream& err);

}  // namespace tarnctl
