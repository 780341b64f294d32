#include "tarnctl/rings/message_length.h"

#include <cstddef>
#include <span>

#include "crm/event_report_format.h"
#include "packet_log/packet_log_format.h"

namespace tarnctl {
namespace {

template <typename T>
bool Load(const RingBytes& body, uint32_t offset, T& value) {
    return body.Copy(offset, std::as_writable_bytes(std::span<T, 1>(&value, 1)));
}

// The chunk that may follow one of this type; a packet is not in every report.
bool MayFollow(uint32_t before, uint32_t type) {
    switch (before) {
        case 0:
            return type == kChunkReport;
        case kChunkReport:
            return type == kChunkPacket || type == kChunkNameValues;
        case kChunkPacket:
            return type == kChunkNameValues;
        default:
            return type == kChunkEnd;
    }
}

uint32_t LeastLength(uint32_t type) {
    switch (type) {
        case kChunkReport:
            return sizeof(ReportChunkHeader) + sizeof(EventReport);
        case kChunkPacket:
            return sizeof(PacketChunk);
        default:
            return sizeof(ChunkHeader);
    }
}

}  // namespace

std::optional<uint32_t> ReportLength(const RingBytes& body) {
    uint32_t offset = 0;
    uint32_t before = 0;
    ChunkHeader header;
    while (Load(body, offset, header) && MayFollow(before, header.chunkType) &&
           header.chunkLength >= LeastLength(header.chunkType) &&
           header.chunkLength <= body.Size() - offset) {
        offset += header.chunkLength;
        before = header.chunkType;
        if (before == kChunkEnd) {
            return header.chunkLength == sizeof header ? std::optional(offset) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> PacketRecordLength(const RingBytes& body) {
    PacketLogRecord record;
    if (!Load(body, 0, record) || record.uRecordType != 0 || record.uTail != 0 ||
        record.reserved12 != 0 || record.reserved60 != 0 || record.iCapturedSize < 0 ||
        static_cast<uint32_t>(record.iCapturedSize) > body.Size() - sizeof record) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(sizeof record) + static_cast<uint32_t>(record.iCapturedSize);
}

}  // namespace tarnctl
