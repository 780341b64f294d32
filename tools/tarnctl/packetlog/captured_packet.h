#pragma once

// One packet on its way from a request into a capture file, with the limits that the request names.
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarnctl {

struct CapturedPacket {
    uint32_t event = 0;      // the event's ID; 0: none
    uint32_t maxFiles = 0;   // files kept per event; 0: no limit
    uint32_t maxKBytes = 0;  // of one file, in units of 1024 bytes; 0: no limit
    uint32_t seconds = 0;    // since 1970
    uint32_t microseconds = 0;
    uint32_t length = 0;                 // what the packet had on the wire; `bytes` may be less
    std::span<const std::byte> bytes{};  // borrowed from the message
    std::string comment{};               // what it was kept for, as UTF-8; may be empty
};

}  // namespace tarnctl
