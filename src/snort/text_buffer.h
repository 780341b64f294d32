#pragma once

// Stores a text in a buffer of the caller, as the error parser and the rule lookup deliver their
// results.
//
// Threads: a pure function.

#include <cstddef>
#include <cstring>
#include <string_view>

// Clears the buffer of `size` bytes and copies as much of the text as fits before its last byte,
// which stays the NUL. A buffer without a byte is left alone.
inline void FillText(char* buffer, int size, std::string_view text) {
    if (size <= 0) {
        return;
    }
    const auto capacity = static_cast<size_t>(size);
    std::memset(buffer, 0, capacity);
    text.copy(buffer, capacity - 1);
}
