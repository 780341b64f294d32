#pragma once

// A text into a buffer of the caller's, as the parser and the rule lookup deliver their results.
//
// Threads: a pure function.

#include <cstddef>
#include <cstring>
#include <string_view>

// Clears the whole buffer of `size` bytes and copies what fits of the text before its last byte.
inline void FillText(char* buffer, int size, std::string_view text) {
    if (size <= 0) {
        return;
    }
    const auto capacity = static_cast<std::size_t>(size);
    std::memset(buffer, 0, capacity);
    text.copy(buffer, capacity - 1);
}
