#pragma once

// `tarnctl show`: shows what a sensor wrote, record by record.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/show/record_filter.h"

namespace tarnctl {

struct ShowOptions : Display {
    std::string file;
    bool json = false;
    bool hex = false;  // the bytes of packets and extra data below their line
    std::string pcap;  // capture file that packets are written into; empty: none
    RecordQuery query;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddShowCommand(CLI::App& app, ShowOptions& options);

// Shows the file. Returns an exit status: a failure unless all of it could be read and understood.
[[nodiscard]] int RunShow(const ShowOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
