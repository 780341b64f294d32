#pragma once

// `tarnctl secmgr`: stands in for the security manager, shows the quarantine rules that come out of
// the daemon, and, where that is wanted, puts them into force in the kernel.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "paths.h"
#include "tarnctl/common/monitor.h"
#include "tarnctl/secmgr/rule_enforcer.h"

namespace tarnctl {

struct SecmgrOptions : MonitorOptions, EnforcerSettings {
    std::string answer;      // as for ParseAnswer; empty: as a manager should
    uint64_t failFirst = 0;  // only so many rules get that answer; 0: all
    bool flush = false;      // a quarantine in the kernel ends with the command
    std::string control;     // a socket for `tarnctl quarantine`; empty: none
    // Not an option; tests use another.
    std::string socketPath = tarn::paths::kSecurityManagerSocket;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddSecmgrCommand(CLI::App& app, SecmgrOptions& options);

// Serves until the options' end or StopRequested(). Rules go to `out`, all else to `err`. Returns
// an exit status: a failure when it cannot begin, when `out` does not take a rule, when a request
// was malformed, or when the table could not be removed from the kernel.
[[nodiscard]] int RunSecmgr(const SecmgrOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
