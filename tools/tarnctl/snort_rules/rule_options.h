#pragma once

// Reads one rule: the header up to the parenthesis, and the options.
//
// Threads: one at a time. It borrows the cursor, which it moves.

#include <functional>
#include <string>
#include <string_view>

#include "tarnctl/snort_rules/rule_cursor.h"
#include "tarnctl/snort_rules/snort_rule.h"

namespace tarnctl {

// How the lines of a rule look.
enum class RuleLines {
    kPlain,          // an enabled rule
    kPlainDisabled,  // the same within #begin and #end
    kCommented,      // each line begins with "#"
};

class RuleOptionsReader {
  public:
    // Whether another rule begins at a place.
    using BeginsRule = std::function<bool(const RuleCursor&)>;

    RuleOptionsReader(RuleCursor& cursor, RuleLines lines, BeginsRule beginsRule);

    // Fills in what the options say. False if the rule ends before its last parenthesis.
    [[nodiscard]] bool Read(SnortRule& rule);

    // A value that should have been a number; empty if there was none.
    [[nodiscard]] const std::string& BadNumber() const { return m_badNumber; }

  private:
    [[nodiscard]] bool ReadHeader();
    [[nodiscard]] bool SkipSpace();   // between options; false at the rule's end
    [[nodiscard]] bool NextLine();    // past a line end; false if the rule ends with the line
    [[nodiscard]] bool ReadValue();   // to the option's end, into m_value
    [[nodiscard]] bool ReadQuoted();  // the same for a piece in quotes
    void Escape();                    // a backslash and the character after it
    void Apply(std::string_view name, SnortRule& rule);
    void Number(std::string_view text, uint32_t* number);

    RuleCursor& m_cursor;
    RuleLines m_lines;
    BeginsRule m_beginsRule;
    std::string m_value;  // kept between options for its memory
    std::string m_badNumber;
};

}  // namespace tarnctl
