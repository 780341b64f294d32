#include <algorithm>
#include <cctype>
#include <utility>

#include "tarnctl/snort_rules/snort_configuration.h"

// The Snort 3 half of snort_configuration.h: enough of Lua's words to find the table of the record
// writer and the plain values in it.

namespace tarnctl {
namespace {

struct Token {
    std::string_view text;  // a name, a number, or one character; empty at the end
    uint32_t line = 0;
    bool isString = false;
};

class LuaTokens {
  public:
    explicit LuaTokens(std::string_view text) : m_text(text) {}

    Token Next() {
        SkipToToken();
        Token token{{}, m_line};
        if (m_at >= m_text.size()) {
            return token;
        }
        const size_t begin = m_at;
        const char first = m_text[m_at];
        if (first == '"' || first == '\'') {
            SkipQuoted(first);
            token.isString = true;
        } else if (first == '[' && LongBracketLevel() >= 0) {
            SkipLongBracket();
            token.isString = true;
        } else if (IsNamePart(first)) {
            while (m_at < m_text.size() && IsNamePart(m_text[m_at])) {
                ++m_at;
            }
        } else {
            ++m_at;
        }
        token.text = m_text.substr(begin, m_at - begin);
        return token;
    }

  private:
    [[nodiscard]] static bool IsNamePart(char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
    }

    void Step() {
        m_line += m_text[m_at] == '\n' ? 1 : 0;
        ++m_at;
    }

    void SkipToToken() {
        while (m_at < m_text.size()) {
            if (std::isspace(static_cast<unsigned char>(m_text[m_at])) != 0) {
                Step();
            } else if (m_text.substr(m_at, 2) == "--") {
                m_at += 2;
                if (LongBracketLevel() >= 0) {
                    SkipLongBracket();
                } else {
                    m_at = std::min(m_text.find('\n', m_at), m_text.size());
                }
            } else {
                return;
            }
        }
    }

    void SkipQuoted(char quote) {
        ++m_at;
        while (m_at < m_text.size() && m_text[m_at] != quote && m_text[m_at] != '\n') {
            if (m_text[m_at] == '\\' && m_at + 1 < m_text.size()) {
                ++m_at;
            }
            Step();
        }
        if (m_at < m_text.size() && m_text[m_at] == quote) {
            ++m_at;
        }
    }

    // The number of equals signs in the long bracket that begins here; -1 if none does.
    [[nodiscard]] int LongBracketLevel() const {
        if (m_at >= m_text.size() || m_text[m_at] != '[') {
            return -1;
        }
        const size_t end = m_text.find_first_not_of('=', m_at + 1);
        return end != std::string_view::npos && m_text[end] == '['
                   ? static_cast<int>(end - m_at - 1)
                   : -1;
    }

    void SkipLongBracket() {
        const auto level = static_cast<size_t>(LongBracketLevel());
        const std::string close = "]" + std::string(level, '=') + "]";
        const size_t found = m_text.find(close, m_at);
        const size_t end = found == std::string_view::npos ? m_text.size() : found + close.size();
        while (m_at < end) {
            Step();
        }
    }

    std::string_view m_text;
    size_t m_at = 0;
    uint32_t m_line = 1;
};

enum class Switch { kNotGiven, kTrue, kFalse, kComputed };

Switch SwitchOf(std::string_view word) {
    return word == "true" ? Switch::kTrue : word == "false" ? Switch::kFalse : Switch::kComputed;
}

// What the text says of the record writer.
struct RecordWriter {
    bool isNamed = false;
    bool isComputed = false;  // set to something other than a table
    uint32_t line = 0;
    Switch legacyEvents = Switch::kNotGiven;
    uint32_t legacyLine = 0;
    Switch noStamp = Switch::kNotGiven;
    uint32_t stampLine = 0;
    std::string otherWriter;
    uint32_t otherLine = 0;
};

class LuaScan {
  public:
    explicit LuaScan(std::string_view text) : m_tokens(text) { Advance(); }

    RecordWriter Run() {
        int depth = 0;
        while (!m_token.text.empty()) {
            if (depth == 0 && !m_token.isString && m_token.text == "unified2") {
                ReadWriter();
                continue;
            }
            const bool isOther =
                depth == 0 && !m_token.isString &&
                (m_token.text.starts_with("alert_") || m_token.text.starts_with("log_"));
            const Token token = m_token;
            Advance();
            if (isOther && m_token.text == "=" && m_writer.otherWriter.empty()) {
                m_writer.otherWriter = token.text;
                m_writer.otherLine = token.line;
            }
            depth += !token.isString && token.text == "{" ? 1 : 0;
            depth -= !token.isString && token.text == "}" && depth > 0 ? 1 : 0;
        }
        return m_writer;
    }

  private:
    void Advance() { m_token = m_tokens.Next(); }

    [[nodiscard]] bool Is(std::string_view text) const {
        return !m_token.isString && m_token.text == text;
    }

    // unified2 = { ... }, or unified2.KEY = VALUE
    void ReadWriter() {
        const uint32_t line = m_token.line;
        Advance();
        if (Is(".")) {
            Advance();
            const Token key = m_token;
            Advance();
            if (Is("=")) {
                Advance();
                Assign(key);
            }
            return;
        }
        if (!Is("=")) {
            return;
        }
        Advance();
        m_writer.line = line;
        m_writer.isNamed = !Is("nil") && !Is("false");
        m_writer.isComputed = m_writer.isNamed && !Is("{");
        if (Is("{")) {
            ReadTable();
        }
    }

    void ReadTable() {
        int depth = 0;
        do {
            depth += Is("{") ? 1 : Is("}") ? -1 : 0;
            const Token key = m_token;
            Advance();
            if (depth == 1 && !key.isString && Is("=")) {
                Advance();
                if (!Is("{")) {
                    Assign(key);
                }
            }
        } while (depth > 0 && !m_token.text.empty());
    }

    // `key` gets the value that is the present token.
    void Assign(const Token& key) {
        if (key.text == "legacy_events") {
            m_writer.legacyEvents = SwitchOf(m_token.text);
            m_writer.legacyLine = key.line;
        } else if (key.text == "nostamp") {
            m_writer.noStamp = SwitchOf(m_token.text);
            m_writer.stampLine = key.line;
        }
    }

    LuaTokens m_tokens;
    Token m_token;
    RecordWriter m_writer;
};

}  // namespace

std::vector<SensorOutputFinding> ScanSnort3Configuration(const std::string& name,
                                                         std::string_view text) {
    const RecordWriter writer = LuaScan(text).Run();
    std::vector<SensorOutputFinding> findings;
    const auto find = [&](SensorOutputFault fault, uint32_t line, std::string sentence) {
        findings.push_back({fault, name, line, std::move(sentence)});
    };
    if (!writer.isNamed) {
        find(SensorOutputFault::kNoRecordWriter, writer.otherLine,
             (writer.otherWriter.empty() ? std::string("no record writer is named here")
                                         : writer.otherWriter + " writes no unified2 records") +
                 "; unless the command line or an included file does it, add \"unified2 = { "
                 "legacy_events = true }\"");
        return findings;
    }
    if (writer.isComputed) {
        find(SensorOutputFault::kUnclear, writer.line,
             "unified2 gets a value that only Lua can tell; make sure that legacy_events is true "
             "in it");
        return findings;
    }
    if (writer.legacyEvents == Switch::kNotGiven || writer.legacyEvents == Switch::kFalse) {
        find(SensorOutputFault::kForeignRecords,
             writer.legacyLine != 0 ? writer.legacyLine : writer.line,
             "without legacy_events the alerts are records that tarn does not take; write "
             "\"legacy_events = true\"");
    } else if (writer.legacyEvents == Switch::kComputed) {
        find(SensorOutputFault::kUnclear, writer.legacyLine,
             "legacy_events gets a value that only Lua can tell; it has to be true");
    }
    if (writer.noStamp == Switch::kFalse) {
        find(SensorOutputFault::kStampedName, writer.stampLine,
             "with nostamp false the time is added to the file's name, so the records never reach "
             "the alert FIFO; write \"nostamp = true\"");
    } else if (writer.noStamp == Switch::kComputed) {
        find(SensorOutputFault::kUnclear, writer.stampLine,
             "nostamp gets a value that only Lua can tell; it has to be true");
    }
    return findings;
}

}  // namespace tarnctl
