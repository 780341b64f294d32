#pragma once

// The message that reports one event to the CRM: four chunks, one after the other without padding.
//
//   type 1     ReportChunkHeader, EventReport, four NUL-terminated strings
//   type 2     PacketChunk and the packet's bytes; only in a report that carries its packet
//   type 3     ChunkHeader, then key NUL value NUL for each pair, then one NUL
//   type 0xFF  ChunkHeader alone: the end
//
// Integers are in host byte order. IPv4 addresses are host-order integers (10.1.2.3 is 0x0A010203),
// IPv6 addresses sixteen bytes in network order. The page docs/formats/event_report.md has the
// tables and a worked example.
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "crm/packet_info_format.h"

enum ReportChunkType : uint32_t {
    kChunkReport = 1,
    kChunkPacket = 2,
    kChunkNameValues = 3,
    kChunkEnd = 0xFF,
};

inline constexpr uint16_t kReportVersion = 1;
inline constexpr uint32_t kReportEventType = 6;   // what the CRM expects of this sensor
inline constexpr uint32_t kReportReportType = 2;  // likewise
inline constexpr uint32_t kReportBlocked = 5;     // blockedStatus: a quarantine rule was added
inline constexpr uint32_t kReportNoVlan = 0xFFFFFFFF;
inline constexpr uint32_t kReportNoAdapter = 0xFFFFFFFF;
inline constexpr uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr uint16_t kEtherTypeIpv6 = 0x86DD;

// The fixed part of a report. `intruder...` always equals `source...`, and `victim...` equals
// `destination...`.
struct EventReport {
    uint16_t reportVersion = kReportVersion;
    uint8_t icmpType = 0;
    uint8_t icmpCode = 0;
    uint8_t intruderIpv6[16] = {};
    uint32_t intruderIp = 0;
    uint32_t sensorId = 0;
    uint32_t issueId = 0;  // the signature that fired
    uint32_t filterId = 0;
    uint32_t vlanId = kReportNoVlan;
    uint32_t victimIp = 0;
    uint8_t victimIpv6[16] = {};
    uint16_t victimPort = 0;
    uint16_t intruderPort = 0;
    uint32_t lastVictimIp = 0;
    uint32_t sourceIp = 0;
    uint32_t destinationIp = 0;
    uint16_t destinationPort = 0;
    uint16_t sourcePort = 0;
    uint8_t sourceIpv6[16] = {};
    uint8_t destinationIpv6[16] = {};
    uint8_t lastVictimIpv6[16] = {};
    uint64_t startTime = 0;  // seconds since the epoch
    uint64_t endTime = 0;    // seconds since the epoch
    uint32_t count = 1;
    uint32_t result = 0;
    uint32_t eventType = kReportEventType;
    uint32_t reportType = kReportReportType;
    uint32_t adapterId = kReportNoAdapter;
    uint32_t eventId = 0;
    uint32_t throttleEventCount = 0;
    uint32_t reserved172 = 0;
    uint32_t validFields = 0;
    uint32_t packetFlags = 0;
    uint64_t frameNumber = 0;
    uint16_t etherType = kEtherTypeIpv4;
    uint16_t ipProtocol = 0;
    uint8_t priority = 1;
    uint8_t reserved197[3] = {};
    uint64_t flow_id = 0;
    uint8_t reserved208[16] = {};
    // Borrowed text in the copy that the packet logging interface reads; always null in a report.
    const char* userString = nullptr;
    uint8_t reserved232[24] = {};
};

// What every chunk begins with. The length counts these eight bytes too.
struct ChunkHeader {
    uint32_t chunkType = 0;
    uint32_t chunkLength = 0;
};

// The head of the first chunk. Each offset counts from the start of the EventReport after it, so
// the first of them is always 256.
struct ReportChunkHeader {
    uint32_t chunkType = kChunkReport;
    uint32_t chunkLength = 0;  // the header, the report and the four strings with their NULs
    uint32_t nameValuesOffset = 0;
    uint32_t userResponseOffset = 0;
    uint32_t userDataOffset = 0;
    uint32_t sensorNameOffset = 0;
    uint32_t blockedStatus = 0;
    uint32_t reserved28 = 0;
};

// The head of the packet chunk; the packet's bytes follow it. `packet.pData` is null on the wire.
struct PacketChunk {
    uint32_t chunkType = kChunkPacket;
    uint32_t chunkLength = 48;  // this head and the packet's bytes
    PacketInfo packet;
};

static_assert(sizeof(EventReport) == 256);
static_assert(offsetof(EventReport, reportVersion) == 0);
static_assert(offsetof(EventReport, icmpType) == 2);
static_assert(offsetof(EventReport, icmpCode) == 3);
static_assert(offsetof(EventReport, intruderIpv6) == 4);
static_assert(offsetof(EventReport, intruderIp) == 20);
static_assert(offsetof(EventReport, sensorId) == 24);
static_assert(offsetof(EventReport, issueId) == 28);
static_assert(offsetof(EventReport, filterId) == 32);
static_assert(offsetof(EventReport, vlanId) == 36);
static_assert(offsetof(EventReport, victimIp) == 40);
static_assert(offsetof(EventReport, victimIpv6) == 44);
static_assert(offsetof(EventReport, victimPort) == 60);
static_assert(offsetof(EventReport, intruderPort) == 62);
static_assert(offsetof(EventReport, lastVictimIp) == 64);
static_assert(offsetof(EventReport, sourceIp) == 68);
static_assert(offsetof(EventReport, destinationIp) == 72);
static_assert(offsetof(EventReport, destinationPort) == 76);
static_assert(offsetof(EventReport, sourcePort) == 78);
static_assert(offsetof(EventReport, sourceIpv6) == 80);
static_assert(offsetof(EventReport, destinationIpv6) == 96);
static_assert(offsetof(EventReport, lastVictimIpv6) == 112);
static_assert(offsetof(EventReport, startTime) == 128);
static_assert(offsetof(EventReport, endTime) == 136);
static_assert(offsetof(EventReport, count) == 144);
static_assert(offsetof(EventReport, result) == 148);
static_assert(offsetof(EventReport, eventType) == 152);
static_assert(offsetof(EventReport, reportType) == 156);
static_assert(offsetof(EventReport, adapterId) == 160);
static_assert(offsetof(EventReport, eventId) == 164);
static_assert(offsetof(EventReport, throttleEventCount) == 168);
static_assert(offsetof(EventReport, reserved172) == 172);
static_assert(offsetof(EventReport, validFields) == 176);
static_assert(offsetof(EventReport, packetFlags) == 180);
static_assert(offsetof(EventReport, frameNumber) == 184);
static_assert(offsetof(EventReport, etherType) == 192);
static_assert(offsetof(EventReport, ipProtocol) == 194);
static_assert(offsetof(EventReport, priority) == 196);
static_assert(offsetof(EventReport, reserved197) == 197);
static_assert(offsetof(EventReport, flow_id) == 200);
static_assert(offsetof(EventReport, reserved208) == 208);
static_assert(offsetof(EventReport, userString) == 224);
static_assert(offsetof(EventReport, reserved232) == 232);
static_assert(std::is_trivially_copyable_v<EventReport>);
static_assert(std::is_standard_layout_v<EventReport>);
static_assert(std::has_unique_object_representations_v<EventReport>);

static_assert(sizeof(ChunkHeader) == 8);
static_assert(offsetof(ChunkHeader, chunkType) == 0);
static_assert(offsetof(ChunkHeader, chunkLength) == 4);
static_assert(std::is_trivially_copyable_v<ChunkHeader>);
static_assert(std::is_standard_layout_v<ChunkHeader>);
static_assert(std::has_unique_object_representations_v<ChunkHeader>);

static_assert(sizeof(ReportChunkHeader) == 32);
static_assert(offsetof(ReportChunkHeader, chunkType) == 0);
static_assert(offsetof(ReportChunkHeader, chunkLength) == 4);
static_assert(offsetof(ReportChunkHeader, nameValuesOffset) == 8);
static_assert(offsetof(ReportChunkHeader, userResponseOffset) == 12);
static_assert(offsetof(ReportChunkHeader, userDataOffset) == 16);
static_assert(offsetof(ReportChunkHeader, sensorNameOffset) == 20);
static_assert(offsetof(ReportChunkHeader, blockedStatus) == 24);
static_assert(offsetof(ReportChunkHeader, reserved28) == 28);
static_assert(std::is_trivially_copyable_v<ReportChunkHeader>);
static_assert(std::is_standard_layout_v<ReportChunkHeader>);
static_assert(std::has_unique_object_representations_v<ReportChunkHeader>);

static_assert(sizeof(PacketChunk) == 48);
static_assert(offsetof(PacketChunk, chunkType) == 0);
static_assert(offsetof(PacketChunk, chunkLength) == 4);
static_assert(offsetof(PacketChunk, packet) == 8);
static_assert(std::is_trivially_copyable_v<PacketChunk>);
static_assert(std::is_standard_layout_v<PacketChunk>);
static_assert(std::has_unique_object_representations_v<PacketChunk>);
