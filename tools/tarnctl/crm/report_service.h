#pragma once

// `tarnctl crm` with sinks: hands the reports of a channel on, and loses none.
//
// Reports are held in their ring until each sink has taken them. See report_sink.h for what that
// means, and held_reports.h for how.
//
// Threads: the main thread.

#include <iosfwd>

#include "tarnctl/crm/crm_command.h"

namespace tarnctl {

// As RunCrm(), with the sinks that the options name. SIGHUP makes them begin anew, SIGUSR1 shows
// the counters on `err`, and so does the end. With `options.json` the counters at the end go to
// `out`.
[[nodiscard]] int RunReportService(const CrmOptions& options, std::ostream& out, std::ostream& err);

// The most reports that are held at a time: as many may come twice when this process is killed.
inline constexpr size_t kReportBatch = 512;

}  // namespace tarnctl
