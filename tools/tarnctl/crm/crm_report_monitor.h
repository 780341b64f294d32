#pragma once

// What the two ways to watch the CRM's queue share: how a report that has come is shown.
//
// Threads: one at a time.

#include <cstddef>
#include <iosfwd>
#include <span>

#include "tarnctl/common/monitor.h"
#include "tarnctl/crm/crm_command.h"
#include "tarnctl/rings/crm_report_text.h"

namespace tarnctl {

class CrmReportMonitor : public Monitor {
  protected:
    // `options` is borrowed.
    CrmReportMonitor(const CrmOptions& options, std::ostream& out, std::ostream& err)
        : Monitor("crm", "report", options, out, err), m_options(options) {}

    // Shows and counts one message of a ring, or says why it is no report.
    void Show(const CrmOrigin& origin, std::span<const std::byte> bytes);

    [[nodiscard]] const CrmOptions& Options() const { return m_options; }

  private:
    const CrmOptions& m_options;
};

}  // namespace tarnctl
