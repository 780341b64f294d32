#include "tarnctl/snort_rules/rule_text.h"

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>

#include "tarnctl/snort_rules/rule_options.h"
#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {
namespace {

// Actions that make an alert, and those that make none.
constexpr std::array<std::string_view, 8> kAlertingActions = {
    "alert", "drop", "block", "reject", "sdrop", "react", "rewrite", "activate"};
constexpr std::array<std::string_view, 4> kSilentActions = {"pass", "log", "dynamic", "file_id"};

constexpr std::array<std::string_view, 5> kDirectives = {"var", "ipvar", "portvar", "include",
                                                         "config"};

template <size_t kCount>
bool Contains(const std::array<std::string_view, kCount>& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

class RuleTextReader {
  public:
    explicit RuleTextReader(std::string_view text) : m_cursor(text) {}

    RuleFileContent Read() {
        m_cursor.SkipByteOrderMark();
        while (!m_cursor.AtEnd()) {
            ReadStatement();
        }
        return std::move(m_content);
    }

  private:
    void ReadStatement() {
        m_cursor.SkipBlanks();
        if (m_cursor.AtEnd()) {
            return;
        }
        if (m_cursor.At('\n')) {
            m_cursor.NewLine();
        } else if (m_cursor.At('#')) {
            ReadComment();
        } else if (m_cursor.Begins("/*")) {
            m_cursor.SkipBlockComment();
        } else if (IsActionAhead()) {
            ReadRule(m_inBlock ? RuleLines::kPlainDisabled : RuleLines::kPlain);
        } else {
            ReadDirective();
        }
    }

    void ReadComment() {
        if (m_cursor.Begins("#begin")) {
            m_inBlock = true;
        } else if (m_cursor.Begins("#end")) {
            m_inBlock = false;
        }
        const RuleCursor start = m_cursor;
        m_cursor.SkipAll("# \t");
        if (IsActionAhead()) {
            ReadRule(RuleLines::kCommented);
            return;
        }
        m_cursor = start;
        m_cursor.SkipLine();
    }

    [[nodiscard]] bool IsAction(std::string_view word) const {
        return Contains(kAlertingActions, word) || Contains(kSilentActions, word) ||
               m_ownActions.contains(word);
    }

    [[nodiscard]] bool IsActionAhead() const { return IsActionAt(m_cursor); }

    [[nodiscard]] bool IsActionAt(const RuleCursor& cursor) const {
        const std::string_view word = cursor.Word();
        const char after = cursor.Peek(word.size());
        return !word.empty() && (after == ' ' || after == '\t' || after == '(') && IsAction(word);
    }

    // Reads the rule that begins here. One that is not closed, or a comment that only resembles a
    // rule, is left after its first line.
    void ReadRule(RuleLines lines) {
        const RuleCursor start = m_cursor;
        SnortRule rule;
        rule.line = m_cursor.Line();
        rule.enabled = lines == RuleLines::kPlain;
        rule.silent = Contains(kSilentActions, m_cursor.Word());
        RuleOptionsReader options(m_cursor, lines,
                                  [this](const RuleCursor& at) { return IsActionAt(at); });
        const bool closed = options.Read(rule);
        if (lines == RuleLines::kPlain) {
            Remark(rule, options, closed);
        }
        if (!closed || (rule.sid == 0 && lines != RuleLines::kPlain)) {
            m_cursor = start;
            m_cursor.SkipLine();
        }
        if (closed && rule.sid != 0) {
            m_content.rules.push_back(std::move(rule));
        }
    }

    void Remark(const SnortRule& rule, const RuleOptionsReader& options, bool closed) {
        const auto remark = [this, &rule](RuleRemarkKind kind, std::string text) {
            m_content.remarks.push_back({kind, 0, rule.line, std::move(text)});
        };
        if (!options.BadNumber().empty()) {
            remark(RuleRemarkKind::kBadNumber, "\"" + options.BadNumber() + "\" is no number");
        }
        if (!closed) {
            remark(RuleRemarkKind::kUnfinished, "the rule's parentheses are not closed");
        } else if (rule.sid == 0) {
            remark(RuleRemarkKind::kNoSid, "the rule has no sid");
        }
    }

    void ReadDirective() {
        const uint32_t line = m_cursor.Line();
        const std::string word(m_cursor.Word());
        std::string rest = m_cursor.TakeLogicalLine().substr(word.size());
        if (word == "ruletype") {
            const std::string_view name = Trimmed(rest);
            m_ownActions.emplace(name.substr(0, name.find_first_of(" \t{")));
        } else if (Contains(kDirectives, word)) {
            m_content.directives.push_back({word, std::string(Trimmed(rest)), line});
        }
    }

    RuleCursor m_cursor;
    RuleFileContent m_content;
    std::set<std::string, std::less<>> m_ownActions;  // declared with ruletype
    bool m_inBlock = false;                           // between #begin and #end
};

}  // namespace

RuleFileContent ReadRuleText(std::string_view text) {
    return RuleTextReader(text).Read();
}

}  // namespace tarnctl
