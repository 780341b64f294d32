#pragma once

// What the security manager reports, as text or as JSON.
//
// Threads: pure functions.

#include <ctime>
#include <string>

#include "tarnctl/quarantine/quarantine_text.h"
#include "tarnctl/quarantine/rule_table.h"
#include "tarnctl/secmgr/secmgr_answer.h"
#include "tarnctl/secmgr/secmgr_frames.h"

namespace tarnctl {

// A request and what became of it.
struct SecmgrOutcome {
    SecmgrRequest request;
    bool isRule = false;  // the text is a rule; only then the parts count
    QuarantineParts parts;
    SecmgrAnswer answer;
    bool accepted = false;
    std::string reason;  // why it was not accepted
};

// Local time, what became of it, SID, flags and rule. No line end.
[[nodiscard]] std::string OutcomeAsLine(const SecmgrOutcome& outcome, time_t now);

// Time, flags, issue ID, rule text and its parts; the answer, and why. No line end.
[[nodiscard]] std::string OutcomeAsJson(const SecmgrOutcome& outcome, time_t now);

// A rule in force: SID, seconds left, how often it was asked for, text.
[[nodiscard]] std::string RuleInForceAsLine(const RuleInForce& rule, time_t now);

}  // namespace tarnctl
