#pragma once

// A place in the text of a rule file, with its line number.
//
// Threads: one at a time. It borrows the text.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarnctl {

// A set of characters, made at compile time and asked once for each byte of a file.
class LetterSet {
  public:
    constexpr explicit LetterSet(std::string_view letters) {
        for (const char letter : letters) {
            m_has[static_cast<unsigned char>(letter)] = true;
        }
    }
    [[nodiscard]] constexpr bool Has(char letter) const {
        return m_has[static_cast<unsigned char>(letter)];
    }

  private:
    std::array<bool, 256> m_has = {};
};

class RuleCursor {
  public:
    explicit RuleCursor(std::string_view text) : m_text(text) {}

    [[nodiscard]] bool AtEnd() const { return m_at >= m_text.size(); }
    [[nodiscard]] bool At(char letter) const { return !AtEnd() && m_text[m_at] == letter; }
    [[nodiscard]] bool Begins(std::string_view word) const {
        return m_text.substr(m_at, word.size()) == word;
    }
    // The character that many places further on; a line end at the end of the text.
    [[nodiscard]] char Peek(size_t ahead = 0) const {
        return m_at + ahead < m_text.size() ? m_text[m_at + ahead] : '\n';
    }
    [[nodiscard]] uint32_t Line() const { return m_line; }  // counted from 1

    // The letters, digits and underscores that begin here.
    [[nodiscard]] std::string_view Word() const;

    // Whether a backslash is here that joins this line to the next one.
    [[nodiscard]] bool AtContinuation() const { return At('\\') && RestIsBlank(1); }

    // Whether only blanks come between here, `ahead` places further on, and the line's end.
    [[nodiscard]] bool RestIsBlank(size_t ahead) const;

    // The text from here up to the first of these characters, or to the end. Moves past it.
    [[nodiscard]] std::string_view TakeUntil(const LetterSet& ends);

    void Skip(size_t count) { m_at += count; }
    void SkipAll(std::string_view letters);  // none of which is a line end
    void SkipBlanks();
    void SkipByteOrderMark();
    void SkipBlockComment();  // from its begin, or to the end of the text
    void SkipLine();          // to the begin of the next line
    void SkipToLineEnd();     // to the line end, which stays
    void NewLine();           // past the line end that is here

    // The rest of the line and, where a backslash joins them, of the lines after it. Moves to the
    // begin of the line that follows.
    [[nodiscard]] std::string TakeLogicalLine();

  private:
    std::string_view m_text;
    size_t m_at = 0;
    uint32_t m_line = 1;
};

}  // namespace tarnctl
