#pragma once

// How long a message of the daemon's rings is, by its own form.
//
// A reader zeroes the length word of a message once it has a copy. The body stays until the writer
// comes round again, and what the daemon writes says itself where it ends. So messages that were
// taken can be counted, and one whose reader was killed between the two stores can be found again.
//
// Threads: pure functions.

#include <cstdint>
#include <optional>

#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

// A report to the CRM: its chunks in their order, up to the end chunk
// (docs/formats/event_report.md).
[[nodiscard]] std::optional<uint32_t> ReportLength(const RingBytes& body);

// A packet for the packet logging daemon: its record and the bytes captured
// (docs/formats/packet_log_record.md).
[[nodiscard]] std::optional<uint32_t> PacketRecordLength(const RingBytes& body);

}  // namespace tarnctl
