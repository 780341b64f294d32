#pragma once

// A decoded report in words: one line for a person, or one JSON object a line for a program.
//
// Threads: pure functions.

#include <cstddef>
#include <span>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/rings/crm_report.h"

namespace tarnctl {

// Where a report came from.
struct CrmOrigin {
    int channel = 0;
    int ring = 0;  // 0 or 1, as in the ending of the ring's file
};

// Time (local), name:severity, addresses and ports, protocol, SID, blocked or not, packet bytes,
// pairs. The texts of a report come from the traffic, so bytes that would act on a terminal are
// written as \xNN. On a terminal the columns line up, blocked or not comes second, severity and
// "blocked" are coloured and the line is cut. No line end.
[[nodiscard]] std::string ReportAsLine(const CrmReport& message, const Display& display = {});

// Every field of the report by its name, the strings, the pairs, and the packet with its bytes in
// base64. A text that is no UTF-8 becomes {"base64": ...}. No line end.
[[nodiscard]] std::string ReportAsJson(const CrmOrigin& origin, const CrmReport& message);

// A message that could not be decoded: the reason and all its bytes in base64. No line end.
[[nodiscard]] std::string MalformedReportAsJson(const CrmOrigin& origin, const std::string& reason,
                                                std::span<const std::byte> bytes);

}  // namespace tarnctl
