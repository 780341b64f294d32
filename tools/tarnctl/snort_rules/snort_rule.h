#pragma once

// One signature as a rule file or a message map names it, and what a reader of such files remarks.
//
// Threads: plain data.

#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl {

// The generator of ordinary text rules. Others belong to decoders, preprocessors and inspectors.
inline constexpr uint32_t kTextRuleGenerator = 1;

struct SnortRule {
    uint32_t generator = kTextRuleGenerator;
    uint32_t sid = 0;            // never 0 in what a reader yields
    uint32_t revision = 0;       // 0: not given
    uint32_t priority = 0;       // 1 is the most severe; 0: not given
    bool enabled = true;         // false: commented out, or "enable:no"
    bool silent = false;         // never makes an alert: pass, log and the like, or "noalert"
    bool fromMap = false;        // known from a map only, which does not say what is enabled
    uint32_t file = 0;           // index into the names of the set that holds the rule
    uint32_t line = 0;           // where the rule begins, counted from 1
    std::string message;         // without its quotes and escapes; empty: not given
    std::string classification;  // the word after classtype; empty: not given

    // Whether an alert of this signature may come out of the sensor. A signature that is known from
    // a map only counts as enabled, since nothing says that it is not.
    [[nodiscard]] bool MayAlert() const { return enabled && !silent; }
};

enum class RuleRemarkKind {
    kUnreadable,   // a file or a folder that cannot be read
    kNoSid,        // an enabled rule without a usable sid
    kBadNumber,    // a number of a rule that is none; the rule counts without it
    kUnfinished,   // an enabled rule whose parentheses are not closed
    kNotFollowed,  // an include whose file is missing or cannot be determined
    kBadMapLine,   // a line of a map that is none
};

struct RuleRemark {
    RuleRemarkKind kind;
    uint32_t file = 0;  // as in SnortRule
    uint32_t line = 0;  // 0: the file as a whole
    std::string text;   // a clause without file, line and full stop
};

// A line of a rule file that is no rule and that matters to the reader of the file.
struct RuleDirective {
    std::string word;   // var, ipvar, portvar, include or config
    std::string value;  // what follows the word, without blanks at its ends
    uint32_t line = 0;
};

// What one text holds. The file of rules and remarks is 0.
struct RuleFileContent {
    std::vector<SnortRule> rules;
    std::vector<RuleRemark> remarks;
    std::vector<RuleDirective> directives;
};

}  // namespace tarnctl
