#pragma once

// `tarnctl import`: makes or extends a tarn_event.conf from rule files and maps.
//
// Threads: the main thread.

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <string>
#include <vector>

#include "paths.h"
#include "tarnctl/common/display.h"

namespace tarnctl {

struct ImportOptions : Display {
    std::vector<std::string> rules;  // files and folders; "-" is standard input
    std::string eventFile = tarn::paths::kEventConfigFile;  // "-": standard input and output
    bool dryRun = false;
    bool prune = false;
    bool json = false;
};

// Declares the sub-command with its options, which are stored in `options` when it is parsed.
CLI::App* AddImportCommand(CLI::App& app, ImportOptions& options);

// Writes the file, or with dryRun its change to `out`, where JSON goes too; all else goes to `err`.
// Returns an exit status: a failure when a rule file cannot be read or the event file cannot be
// written.
[[nodiscard]] int RunImport(const ImportOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
