#include "tarnctl/crm/crm_report_monitor.h"

#include <string>

namespace tarnctl {

void CrmReportMonitor::Show(const CrmOrigin& origin, std::span<const std::byte> bytes) {
    CrmReport message;
    const std::string reason = DecodeCrmReport(bytes, message);
    if (!reason.empty()) {
        TellMalformed("report in ring -" + std::to_string(origin.ring), reason, bytes,
                      MalformedReportAsJson(origin, reason, bytes));
        return;
    }
    CountOne();
    Write(WritesJson() ? ReportAsJson(origin, message) : ReportAsLine(message, m_options));
}

}  // namespace tarnctl
