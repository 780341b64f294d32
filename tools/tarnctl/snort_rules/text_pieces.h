#pragma once

// Small operations on text that the readers of this folder share.
//
// Threads: pure functions.

#include <charconv>
#include <cstdint>
#include <string_view>

namespace tarnctl {

inline constexpr std::string_view kTextBlanks = " \t\r\f\v";

// The text without blanks at both ends.
[[nodiscard]] inline std::string_view Trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(kTextBlanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kTextBlanks) - begin + 1);
}

// Reads a text that is a decimal number and nothing else. False, with `number` as it was, if it is
// none or does not fit.
[[nodiscard]] inline bool ReadNumber(std::string_view text, uint32_t* number) {
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    *number = value;
    return true;
}

// Cuts the first line off `text` and yields it without its line end.
[[nodiscard]] inline std::string_view TakeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

}  // namespace tarnctl
