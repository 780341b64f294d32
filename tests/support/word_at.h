#pragma once

// Looks into messages of the local wires, whose integers are in the byte order of the host.
//
// Threads: a plain function.

#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>

// The word at an offset. Throws std::out_of_range where the bytes do not reach.
inline uint32_t WordAt(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t word = 0;
    if (bytes.size() < sizeof(word) || offset > bytes.size() - sizeof(word)) {
        throw std::out_of_range("no whole word there");
    }
    std::memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}
