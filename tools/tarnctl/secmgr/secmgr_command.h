#pragma once

// `tarnctl secmgr`: stands in for the security manager, shows the quarantine rules that come out of
// the daemon, and, where it is told to, puts them into force in the kernel.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "paths.h"
#include "tarnctl/common/monitor.h"

namespace tarnctl {

struct SecmgrOptions : MonitorOptions {
    std::string answer;                  // as for ParseAnswer; empty: as a manager should
    uint64_t failFirst = 0;              // only so many rules get that answer; 0: all
    bool nft = false;                    // quarantine is made real
    bool flush = false;                  // and ends with the command
    std::vector<std::string> never;      // addresses and networks
    std::vector<std::string> neverFile;  // files of them
    // Not options; tests use others.
    std::string socketPath = tarn::paths::kSecurityManagerSocket;
    std::string nftCommand = "/usr/sbin/nft";
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddSecmgrCommand(CLI::App& app, SecmgrOptions& options);

// Serves until the options' end or StopRequested(). Rules go to `out`, all else to `err`. Returns
// an exit status: a failure when it cannot begin, when `out` does not take a rule, when a request
// was malformed, or when nft did not do what it should.
[[nodiscard]] int RunSecmgr(const SecmgrOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
