#pragma once

// Values in words, the same in every sub-command: for a person at a terminal, or within JSON.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace tarnctl {

// Seconds since the epoch as local date and time.
[[nodiscard]] std::string TimeText(uint64_t seconds);
// With a point and six digits after it, or more for a number that is no fraction of a second.
[[nodiscard]] std::string TimeText(uint64_t seconds, uint32_t microseconds);

// The same as JSON: a number, with a fraction where microseconds are known; null for a time of 0,
// which is none. Every time in JSON has this form, and the name "time" or one that ends in "Time".
[[nodiscard]] nlohmann::ordered_json TimeAsJson(uint64_t seconds, uint32_t microseconds = 0);

// The text with every byte that would act on a terminal as \xNN.
[[nodiscard]] std::string ForTerminal(std::string_view text);

// The text, or {"base64": ...} where it is no UTF-8.
[[nodiscard]] nlohmann::ordered_json TextAsJson(std::string_view text);

// RFC 4648, with padding.
[[nodiscard]] std::string Base64(std::span<const std::byte> bytes);

// A blank and two hexadecimal digits for each byte.
[[nodiscard]] std::string HexDigits(std::span<const std::byte> bytes);

// What came and was not what it should be: the reason, and the bytes in base64. No line end.
[[nodiscard]] std::string MalformedAsJson(const std::string& reason,
                                          std::span<const std::byte> bytes);

}  // namespace tarnctl
