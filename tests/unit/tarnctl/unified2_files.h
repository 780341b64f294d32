#pragma once

// Records of a unified2 file, made from their parts.
//
// Threads: plain functions.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

inline std::string BigEndianWord(uint32_t value) {
    return {static_cast<char>(value >> 24U), static_cast<char>(value >> 16U & 0xFFU),
            static_cast<char>(value >> 8U & 0xFFU), static_cast<char>(value & 0xFFU)};
}

inline std::string Record(uint32_t type, std::size_t length, char filler = 'x') {
    return BigEndianWord(type) + BigEndianWord(static_cast<uint32_t>(length)) +
           std::string(length, filler);
}

inline std::string Alert(char filler = 'a') {
    return Record(104, 60, filler);
}
inline std::string AlertIpv6(char filler = 'b') {
    return Record(105, 84, filler);
}
inline std::string Packet(std::size_t bytes) {
    return Record(2, 28 + bytes, 'p');
}

inline std::span<const std::byte> AsBytes(const std::string& text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}
