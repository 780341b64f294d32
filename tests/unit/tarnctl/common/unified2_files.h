#pragma once

// Records of a unified2 file, made from their parts.
//
// Threads: plain functions.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "support/unified2_records.h"

inline std::string AsText(const u2test::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

inline std::string BigEndianWord(uint32_t value) {
    u2test::Bytes bytes;
    u2test::Put32(bytes, value);
    return AsText(bytes);
}

inline std::string Record(uint32_t type, size_t length, char filler = 'x') {
    return AsText(u2test::Framed(type, u2test::Bytes(length, static_cast<uint8_t>(filler))));
}

inline std::string Alert(char filler = 'a') {
    return Record(104, 60, filler);
}
inline std::string AlertIpv6(char filler = 'b') {
    return Record(105, 84, filler);
}
inline std::string Packet(size_t bytes) {
    return Record(2, 28 + bytes, 'p');
}

inline std::span<const std::byte> AsBytes(const std::string& text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}
