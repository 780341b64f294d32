#include "tarnctl/snort_rules/rule_cursor.h"

#include <algorithm>

#include "tarnctl/snort_rules/text_pieces.h"

namespace tarnctl {

std::string_view RuleCursor::Word() const {
    const auto isPart = [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '_';
    };
    size_t end = m_at;
    while (end < m_text.size() && isPart(m_text[end])) {
        ++end;
    }
    return m_text.substr(m_at, end - m_at);
}

bool RuleCursor::RestIsBlank(size_t ahead) const {
    const size_t at = m_text.find_first_not_of(kTextBlanks, m_at + ahead);
    return at == std::string_view::npos || m_text[at] == '\n';
}

std::string_view RuleCursor::TakeUntil(const LetterSet& ends) {
    const size_t begin = m_at;
    while (!AtEnd() && !ends.Has(m_text[m_at])) {
        ++m_at;
    }
    return m_text.substr(begin, m_at - begin);
}

void RuleCursor::SkipAll(std::string_view letters) {
    m_at = std::min(m_text.find_first_not_of(letters, m_at), m_text.size());
}

void RuleCursor::SkipBlanks() {
    SkipAll(kTextBlanks);
}

void RuleCursor::SkipByteOrderMark() {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (Begins(kMark)) {
        Skip(kMark.size());
    }
}

void RuleCursor::SkipBlockComment() {
    constexpr std::string_view kEnd = "*/";
    const size_t found = m_text.find(kEnd, m_at + kEnd.size());
    const size_t end = found == std::string_view::npos ? m_text.size() : found + kEnd.size();
    m_line += static_cast<uint32_t>(std::count(m_text.begin() + static_cast<ptrdiff_t>(m_at),
                                               m_text.begin() + static_cast<ptrdiff_t>(end), '\n'));
    m_at = end;
}

void RuleCursor::SkipLine() {
    SkipToLineEnd();
    if (!AtEnd()) {
        NewLine();
    }
}

void RuleCursor::SkipToLineEnd() {
    m_at = std::min(m_text.find('\n', m_at), m_text.size());
}

void RuleCursor::NewLine() {
    ++m_at;
    ++m_line;
}

std::string RuleCursor::TakeLogicalLine() {
    static constexpr LetterSet kEnds("\\\n");
    std::string joined;
    while (!AtEnd()) {
        joined += TakeUntil(kEnds);
        if (AtContinuation()) {
            SkipLine();
            continue;
        }
        if (At('\\')) {
            joined += '\\';
            Skip(1);
            continue;
        }
        SkipLine();
        break;
    }
    return joined;
}

}  // namespace tarnctl
