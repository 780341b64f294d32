#pragma once

// `tarnctl explain`: says what the daemon does when a signature fires, and why.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/explain/explained_alert.h"
#include "tarnctl/explain/loaded_entries.h"

namespace tarnctl {

struct ExplainOptions : Display {
    uint32_t signature = 0;  // 0 with --report
    std::string alertFile;   // a unified2 file; empty for an alert that is described
    AlertDescription alert;
    std::string reportFile;  // lines of tarnctl crm --json; empty for none
    ConfigPaths paths;
    bool json = false;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddExplainCommand(CLI::App& app, ExplainOptions& options);

// Explains to `out`; failures go to `err`. Returns an exit status: a failure when a file cannot be
// read or holds no such alert.
[[nodiscard]] int RunExplain(const ExplainOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
