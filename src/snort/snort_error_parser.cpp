#include "snort/snort_error_parser.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "snort/text_buffer.h"

namespace {

constexpr std::string_view kRulesError = "ERROR: /etc/snort/rules/snort.rules";
constexpr std::string_view kConfigurationError = "ERROR: /etc/snort/qor-snort.conf";
static_assert(kRulesError.size() == 35 && kConfigurationError.size() == 32);

// The text between the first and the second "(", or up to the end of the line.
std::string AfterParenthesis(std::string_view line) {
    const size_t first = line.find('(');
    if (first == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(first + 1);
    return std::string(line.substr(0, line.find('(')));
}

// Snort's form is the file name, the line number in parentheses, a blank, and the text.
//
// Deliberate: the line is split at parentheses and nowhere else. A text that contains "(" ends
// there, and only what follows the last ")" of a text is kept. The first character of each part is
// dropped as the blank; an empty part has none and throws, which ends the error thread.
void ParseRulesError(std::string_view line, long* lineNumber, char* reason, int reasonSize) {
    const std::string piece = AfterParenthesis(line);
    size_t end = piece.find(')');
    // Deliberate: the number is one of 32 bits, and a larger one wraps.
    *lineNumber = static_cast<int32_t>(std::strtol(piece.substr(0, end).c_str(), nullptr, 10));
    while (end != std::string::npos && end + 1 < piece.size()) {
        const size_t begin = end + 1;
        end = piece.find(')', begin);
        FillText(reason, reasonSize, piece.substr(begin, end - begin).substr(1));
    }
}

}  // namespace

int ParseSnortError(const char* line, int* kind, long* lineNumber, char* reason, int* reasonSize) {
    *kind = kSnortErrorOther;
    *lineNumber = 0;
    const std::string_view text = line;
    if (text.starts_with(kRulesError)) {
        *kind = kSnortErrorInRules;
        FillText(reason, *reasonSize, {});
        ParseRulesError(text, lineNumber, reason, *reasonSize);
        return 0;
    }
    if (text.starts_with(kConfigurationError)) {
        *kind = kSnortErrorInConfiguration;
    }
    FillText(reason, *reasonSize, text);
    return 0;
}
