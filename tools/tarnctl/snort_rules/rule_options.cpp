#include "tarnctl/snort_rules/rule_options.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {
namespace {

// Where each piece of a rule ends.
constexpr LetterSet kHeaderEnds("($\\\n");
constexpr LetterSet kVariableEnds(")\n");
constexpr LetterSet kNameEnds(":;) \t\r\n\\\"(");
constexpr LetterSet kValueEnds("\\\";)\n");
constexpr LetterSet kQuotedEnds("\\\"\n");

bool SameWord(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == b;
    });
}

// The value without its quotes. A backslash before one of the characters that a rule has to escape
// goes; before any other it belongs to the text.
std::string Unquoted(std::string_view value) {
    value = Trimmed(value);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    }
    std::string text;
    text.reserve(value.size());
    for (size_t at = 0; at < value.size(); ++at) {
        constexpr std::string_view kEscaped = "\"\\;:";
        const bool isEscape = value[at] == '\\' && at + 1 < value.size() &&
                              kEscaped.find(value[at + 1]) != std::string_view::npos;
        at += isEscape ? 1 : 0;
        text += value[at];
    }
    return text;
}

}  // namespace

RuleOptionsReader::RuleOptionsReader(RuleCursor& cursor, RuleLines lines, BeginsRule beginsRule)
    : m_cursor(cursor), m_lines(lines), m_beginsRule(std::move(beginsRule)) {}

bool RuleOptionsReader::Read(SnortRule& rule) {
    if (!ReadHeader()) {
        return false;
    }
    while (SkipSpace()) {
        if (m_cursor.At(')')) {
            m_cursor.Skip(1);
            return true;
        }
        const std::string_view name = m_cursor.TakeUntil(kNameEnds);
        m_value.clear();
        if (!SkipSpace()) {
            return false;
        }
        if (m_cursor.At(':')) {
            m_cursor.Skip(1);
            if (!ReadValue()) {
                return false;
            }
        } else if (m_cursor.At(';') || name.empty()) {
            m_cursor.Skip(1);  // the option's end, or a character that has no business here
        }
        Apply(name, rule);
    }
    return false;
}

bool RuleOptionsReader::ReadHeader() {
    for (;;) {
        (void)m_cursor.TakeUntil(kHeaderEnds);
        if (m_cursor.AtEnd()) {
            return false;
        }
        if (m_cursor.Begins("$(")) {  // a variable
            (void)m_cursor.TakeUntil(kVariableEnds);
        } else if (m_cursor.At('(')) {
            m_cursor.Skip(1);
            return true;
        } else if (m_cursor.AtContinuation() || m_cursor.At('\n')) {
            const bool joined = m_cursor.At('\\');
            m_cursor.SkipToLineEnd();
            // A header without options ends with its line. One whose options follow does not.
            if (!NextLine() || (!joined && m_cursor.RestIsBlank(0))) {
                return false;
            }
        } else {
            m_cursor.Skip(1);
        }
    }
}

bool RuleOptionsReader::SkipSpace() {
    for (;;) {
        m_cursor.SkipBlanks();
        if (m_cursor.AtEnd()) {
            return false;
        }
        if (m_cursor.AtContinuation() || m_cursor.At('#')) {
            m_cursor.SkipToLineEnd();
        } else if (m_cursor.Begins("/*")) {
            m_cursor.SkipBlockComment();
        } else if (!m_cursor.At('\n')) {
            return true;
        } else if (!NextLine()) {
            return false;
        }
    }
}

bool RuleOptionsReader::NextLine() {
    for (;;) {
        if (m_cursor.AtEnd()) {
            return false;
        }
        m_cursor.NewLine();
        RuleCursor ahead = m_cursor;
        ahead.SkipBlanks();
        const bool isComment = ahead.At('#');
        if (m_lines == RuleLines::kCommented) {
            ahead.SkipAll("# \t");
            if (!isComment || m_beginsRule(ahead)) {
                return false;
            }
            m_cursor = ahead;
            return true;
        }
        if (m_beginsRule(ahead)) {
            return false;
        }
        if (!isComment) {
            return true;
        }
        m_cursor.SkipToLineEnd();  // A comment between the lines of a rule is no part of it.
    }
}

bool RuleOptionsReader::ReadValue() {
    for (;;) {
        m_value += m_cursor.TakeUntil(kValueEnds);
        if (m_cursor.AtEnd()) {
            return false;
        }
        switch (m_cursor.Peek()) {
            case ';':
                m_cursor.Skip(1);
                return true;
            case ')':
                // A parenthesis may be part of a value, as of an address on the web. The last one
                // of a rule whose last option has no semicolon ends its line.
                if (m_cursor.RestIsBlank(1)) {
                    return true;
                }
                m_value += ')';
                m_cursor.Skip(1);
                break;
            case '"':
                if (!ReadQuoted()) {
                    return false;
                }
                break;
            case '\n':
                m_value += ' ';
                if (!NextLine()) {
                    return false;
                }
                break;
            default:
                if (m_cursor.AtContinuation()) {
                    m_cursor.SkipToLineEnd();
                    if (!NextLine()) {
                        return false;
                    }
                } else {
                    Escape();
                }
        }
    }
}

bool RuleOptionsReader::ReadQuoted() {
    m_value += '"';
    m_cursor.Skip(1);
    for (;;) {
        m_value += m_cursor.TakeUntil(kQuotedEnds);
        if (m_cursor.AtEnd()) {
            return false;
        }
        if (m_cursor.At('"')) {
            m_value += '"';
            m_cursor.Skip(1);
            return true;
        }
        if (m_cursor.At('\n') || m_cursor.AtContinuation()) {
            m_value += m_cursor.At('\n') ? " " : "";
            m_cursor.SkipToLineEnd();
            if (!NextLine()) {
                return false;
            }
            continue;
        }
        Escape();
    }
}

void RuleOptionsReader::Escape() {
    const size_t length = m_cursor.Peek(1) == '\n' ? 1 : 2;
    m_value += m_cursor.Peek();
    if (length == 2) {
        m_value += m_cursor.Peek(1);
    }
    m_cursor.Skip(length);
}

void RuleOptionsReader::Apply(std::string_view name, SnortRule& rule) {
    if (SameWord(name, "msg")) {
        rule.message = Unquoted(m_value);
    } else if (SameWord(name, "sid")) {
        Number(m_value, &rule.sid);
    } else if (SameWord(name, "gid")) {
        Number(m_value, &rule.generator);
    } else if (SameWord(name, "rev")) {
        Number(m_value, &rule.revision);
    } else if (SameWord(name, "priority")) {
        Number(m_value, &rule.priority);
    } else if (SameWord(name, "classtype")) {
        rule.classification = Trimmed(m_value);
    } else if (SameWord(name, "noalert") ||
               (SameWord(name, "flowbits") && Trimmed(m_value) == "noalert")) {
        rule.silent = true;
    } else if (SameWord(name, "enable") && Trimmed(m_value) == "no") {
        rule.enabled = false;
    }
}

void RuleOptionsReader::Number(std::string_view text, uint32_t* number) {
    if (!ReadNumber(Trimmed(text), number)) {
        m_badNumber = Trimmed(text);
    }
}

}  // namespace tarnctl
