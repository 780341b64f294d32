#pragma once

// `tarnctl messages`: stands in for the CRM and shows the text messages that come out of the
// daemon, which are what it makes of Snort's error output.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/monitor.h"

namespace tarnctl {

struct MessagesOptions : MonitorOptions {
    // Not an option; tests use a socket of their own.
    std::string socketPath = tarn::paths::kCrmMessageSocket;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddMessagesCommand(CLI::App& app, MessagesOptions& options);

// Receives until the options' end or StopRequested(). Messages go to `out`, all else to `err`.
// Returns an exit status: a failure when the socket cannot be had, when `out` does not take a
// message, or when a datagram was no message.
[[nodiscard]] int RunMessages(const MessagesOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
