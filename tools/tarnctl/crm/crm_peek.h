#pragma once

// `tarnctl crm --peek`: shows the reports that wait in the rings of a channel and takes none.
//
// Threads: the main thread.

#include <iosfwd>

#include "tarnctl/crm/crm_command.h"

namespace tarnctl {

// As RunCrm(), with the rings mapped for reading only and the semaphore untouched. Without
// `options.follow` it ends at the end of what waits.
[[nodiscard]] int RunCrmPeek(const CrmOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tarnctl
