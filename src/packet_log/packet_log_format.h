#pragma once

// The record in front of each packet in the ring of the packet logging daemon. The captured bytes
// follow it in the same message, so the ring's length word is 72 and the captured size together.
// docs/formats/packet_log_record.md describes the format; integers are in host byte order.
//
//   offset  size  field
//   0       4     uRecordType      always 0
//   4       4     uRunningLength   72 and all captured bytes so far
//   8       4     uValueA          the caller's
//   12      4     reserved12       0
//   16      8     uValueB          the caller's
//   24      4     uPacketLength    the packet's, as are the seven below it
//   28      4     iCapturedSize
//   32      4     uSeconds
//   36      4     uMicroseconds
//   40      4     uFrameNumber
//   44      4     uReserved
//   48      4     uFlags
//   52      4     uAdapterID
//   56      4     uValueC          the caller's
//   60      4     reserved60       0
//   64      8     uTail            always 0
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct PacketLogRecord {
    uint32_t uRecordType = 0;
    uint32_t uRunningLength = 72;  // bytes; modulo 2 to the 32
    uint32_t uValueA = 0;
    uint32_t reserved12 = 0;
    uint64_t uValueB = 0;
    uint32_t uPacketLength = 0;  // bytes that the packet has
    int32_t iCapturedSize = 0;   // bytes of it that were captured
    uint32_t uSeconds = 0;       // capture time, since the epoch
    uint32_t uMicroseconds = 0;  // 0 to 999999
    uint32_t uFrameNumber = 0;
    uint32_t uReserved = 0;
    uint32_t uFlags = 0;
    uint32_t uAdapterID = 0;
    uint32_t uValueC = 0;
    uint32_t reserved60 = 0;
    uint64_t uTail = 0;
};

static_assert(sizeof(PacketLogRecord) == 72);
static_assert(offsetof(PacketLogRecord, uRecordType) == 0);
static_assert(offsetof(PacketLogRecord, uRunningLength) == 4);
static_assert(offsetof(PacketLogRecord, uValueA) == 8);
static_assert(offsetof(PacketLogRecord, reserved12) == 12);
static_assert(offsetof(PacketLogRecord, uValueB) == 16);
static_assert(offsetof(PacketLogRecord, uPacketLength) == 24);
static_assert(offsetof(PacketLogRecord, iCapturedSize) == 28);
static_assert(offsetof(PacketLogRecord, uSeconds) == 32);
static_assert(offsetof(PacketLogRecord, uMicroseconds) == 36);
static_assert(offsetof(PacketLogRecord, uFrameNumber) == 40);
static_assert(offsetof(PacketLogRecord, uReserved) == 44);
static_assert(offsetof(PacketLogRecord, uFlags) == 48);
static_assert(offsetof(PacketLogRecord, uAdapterID) == 52);
static_assert(offsetof(PacketLogRecord, uValueC) == 56);
static_assert(offsetof(PacketLogRecord, reserved60) == 60);
static_assert(offsetof(PacketLogRecord, uTail) == 64);
static_assert(std::is_trivially_copyable_v<PacketLogRecord>);
static_assert(std::is_standard_layout_v<PacketLogRecord>);
static_assert(std::has_unique_object_representations_v<PacketLogRecord>);

// File size in bytes of the ring.
inline constexpr uint32_t kPacketLogRingSize = 0x9c4000;
