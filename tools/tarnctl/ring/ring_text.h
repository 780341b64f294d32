#pragma once

// Rings in words: lines for a person, or JSON for a program.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/ring/ring_repair.h"
#include "tarnctl/rings/known_rings.h"
#include "tarnctl/rings/ring_state.h"

namespace tarnctl {

// "NAME  PATH", the path alone where the ring has no other name.
[[nodiscard]] std::string RingTitle(const RingPlace& place);

// Size, indexes, and how full the ring is, in one line.
[[nodiscard]] std::string HeadText(const RingState& state);

// One message: its offset and length, and the report in it, the packet in it, or its first bytes.
[[nodiscard]] std::string MessageAsLine(const RingPlace& place, uint32_t offset,
                                        std::span<const std::byte> body, const Display& display);

// The same with all its bytes in base64.
[[nodiscard]] nlohmann::ordered_json MessageAsJson(uint32_t offset,
                                                   std::span<const std::byte> body);

// Name, path, kind, size, indexes, used bytes, waiting messages, and the fault or null.
[[nodiscard]] nlohmann::ordered_json RingAsJson(const RingPlace& place, const RingState& state);

}  // namespace tarnctl
