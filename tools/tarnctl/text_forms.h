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

// The text with every byte that would act on a terminal as \xNN.
[[nodiscard]] std::string ForTerminal(std::string_view text);

// The text, or {"base64": ...} where it is no UTF-8.
[[nodiscard]] nlohmann::ordered_json TextAsJson(std::string_view text);

// RFC 4648, with padding.
[[nodiscard]] std::string Base64(std::span<const std::byte> bytes);

}  // namespace tarnctl
