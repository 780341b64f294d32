#pragma once

// PacketInfo: one captured packet as its holder describes it.
//
// The pipeline hands it to the packet logging interface, and forty bytes of it travel in the packet
// chunk of a report to the CRM (docs/formats/event_report.md), with the pointer as zero.
//
// Owner: whoever fills it. `pData` is borrowed and must outlive every use of the record.
//
// Threads: a plain value; copies are independent, except for what `pData` points at.
//
// | Offset | Width | Field          |
// |-------:|------:|----------------|
// |      0 |     4 | uPacketLength  |
// |      4 |     4 | iCapturedSize  |
// |      8 |     4 | uSeconds       |
// |     12 |     4 | uMicroseconds  |
// |     16 |     8 | pData          |
// |     24 |     4 | uFrameNumber   |
// |     28 |     4 | uReserved      |
// |     32 |     4 | uFlags         |
// |     36 |     4 | uAdapterID     |

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct PacketInfo {
    uint32_t uPacketLength = 0;      // bytes the packet has
    int32_t iCapturedSize = 0;       // bytes available at pData; this one counts the data
    uint32_t uSeconds = 0;           // capture time, seconds since the epoch
    uint32_t uMicroseconds = 0;      // capture time, 0 to 999999
    const uint8_t* pData = nullptr;  // borrowed, null when there is no packet
    uint32_t uFrameNumber = 0;
    uint32_t uReserved = 0;  // carried, not interpreted
    uint32_t uFlags = 0;
    uint32_t uAdapterID = 0;
};

static_assert(sizeof(PacketInfo) == 40);
static_assert(offsetof(PacketInfo, uPacketLength) == 0);
static_assert(offsetof(PacketInfo, iCapturedSize) == 4);
static_assert(offsetof(PacketInfo, uSeconds) == 8);
static_assert(offsetof(PacketInfo, uMicroseconds) == 12);
static_assert(offsetof(PacketInfo, pData) == 16);
static_assert(offsetof(PacketInfo, uFrameNumber) == 24);
static_assert(offsetof(PacketInfo, uReserved) == 28);
static_assert(offsetof(PacketInfo, uFlags) == 32);
static_assert(offsetof(PacketInfo, uAdapterID) == 36);
static_assert(std::is_trivially_copyable_v<PacketInfo>);
static_assert(std::is_standard_layout_v<PacketInfo>);
static_assert(std::has_unique_object_representations_v<PacketInfo>);
