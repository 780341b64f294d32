#pragma once

// The sinks that the options of `tarnctl crm` name, each with its place in the reports and, where
// one is wanted, with its own spill file.
//
// A single sink has the spill file that --spill names, and so takes over what waits there, whatever
// sink it waited for. Of several each has a file of its own, or reports would wait in it for one
// that has them: the name is followed by that of the sink, so that a restart finds the same file in
// whatever order the sinks are named.
//
// Threads: one at a time.

#include <string>
#include <vector>

#include "tarnctl/crm/crm_command.h"
#include "tarnctl/crm/outlet.h"

namespace tarnctl {

// Makes the outlets; nothing is opened yet. Returns an empty text, or the reason why the options
// cannot be met.
[[nodiscard]] std::string MakeOutlets(const CrmOptions& options, std::vector<Outlet>& outlets);

// What waits in spill files of --spill that belong to none of the outlets, a text for each: no sink
// gets it, so somebody should know. A file that another process uses is left out.
[[nodiscard]] std::vector<std::string> ForgottenReports(const CrmOptions& options,
                                                        const std::vector<Outlet>& outlets);

}  // namespace tarnctl
