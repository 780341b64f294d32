#pragma once

// A record in words: a line for a person, or one JSON object for a program.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/show/record_content.h"

namespace tarnctl {

// Where a record is.
struct RecordPlace {
    uint64_t offset = 0;  // in the file, of its header
    uint32_t type = 0;
    uint32_t length = 0;  // bytes of payload
};

// Time, addresses, signature and what else there is. Bytes that would act on a terminal are \xNN.
// No line end.
[[nodiscard]] std::string RecordAsLine(const RecordPlace& place, const RecordContent& content,
                                       const Display& display);

// Sixteen bytes a line, with their offset, in digits and as characters. Each line has its end.
[[nodiscard]] std::string HexLines(std::span<const std::byte> bytes);

// The bytes that a record carries beside its fields; none of most kinds.
[[nodiscard]] std::span<const std::byte> CarriedBytes(const RecordContent& content);

// Every field by its name. No line end.
[[nodiscard]] std::string RecordAsJson(const RecordPlace& place, const RecordContent& content);

// A record that could not be taken apart. No line end.
[[nodiscard]] std::string MalformedRecordAsJson(const RecordPlace& place, const std::string& reason,
                                                std::span<const std::byte> payload);

}  // namespace tarnctl
