#pragma once

// A text message for the CRM, taken apart and put in words. The datagram is described in
// docs/formats/crm_message.md.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tarnctl/common/display.h"

namespace tarnctl {

struct TextMessage {
    uint32_t time = 0;  // seconds since the epoch
    bool isError = false;
    std::string text;  // without its NUL
};

// Fills `message`. Returns an empty text, or the reason why the bytes are no message.
[[nodiscard]] std::string DecodeTextMessage(std::span<const std::byte> bytes, TextMessage& message);

// Time (local), kind and text, whose newline at the end is left out; bytes that would act on a
// terminal are written as \xNN. On a terminal the columns line up, an error is coloured and the
// line is cut. No line end.
[[nodiscard]] std::string TextMessageAsLine(const TextMessage& message,
                                            const Display& display = {});

// The three fields, the text as it came. No line end.
[[nodiscard]] std::string TextMessageAsJson(const TextMessage& message);

}  // namespace tarnctl
