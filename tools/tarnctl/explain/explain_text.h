#pragma once

// An explanation in words for a person, or as JSON for a program (docs/schemas/explain.json).
//
// Threads: pure functions.

#include <cstdint>
#include <string>
#include <vector>

#include "tarnctl/explain/explanation.h"
#include "tarnctl/explain/loaded_entries.h"

class CrmEventSource;

namespace tarnctl {

// What a report said, held against what the entry asks for.
struct ReportComparison {
    bool wasBlocked = false;
    bool agrees = false;
    std::string reason;  // a whole sentence
};

// All that is shown of one alert. Everything is borrowed.
struct ExplainedEvent {
    const Explanation& explanation;
    const std::vector<EntryBlock>& blocks;
    const CrmEventSource& source;
    const char* origin = "";  // "example", "options", "file" or "report"
    uint64_t further = 0;     // alerts of the same signature in the file
    const ReportComparison* comparison = nullptr;
};

// Why an alert was or was not blocked, from what the report says and what the entry asks for.
// `reportedName` is the event name of the report.
[[nodiscard]] ReportComparison Compare(const Explanation& explanation, bool wasBlocked,
                                       const std::string& reportedName);

[[nodiscard]] std::string ExplanationAsText(const ExplainedEvent& event, bool isColored);
// One line, without a line end.
[[nodiscard]] std::string ExplanationAsJson(const ExplainedEvent& event);

}  // namespace tarnctl
