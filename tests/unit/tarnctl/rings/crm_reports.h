#pragma once

// Makes messages of the CRM's event queue from their parts, to be decoded and to be damaged.
//
// Threads: plain functions.

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tarnctl/rings/crm_report.h"

using CrmBytes = std::vector<std::byte>;

inline void Append(CrmBytes& bytes, const void* from, size_t length) {
    const auto* const first = static_cast<const std::byte*>(from);
    bytes.insert(bytes.end(), first, first + length);
}

inline void AppendText(CrmBytes& bytes, const std::string& text) {
    Append(bytes, text.c_str(), text.size() + 1);
}

// The message that `message` was decoded from.
inline CrmBytes Encode(const tarnctl::CrmReport& message) {
    const std::string* const texts[] = {&message.nameValues, &message.userResponse,
                                        &message.userData, &message.sensorName};
    ReportChunkHeader header;
    uint32_t* const offsets[] = {&header.nameValuesOffset, &header.userResponseOffset,
                                 &header.userDataOffset, &header.sensorNameOffset};
    uint32_t offset = sizeof(EventReport);
    for (size_t i = 0; i < 4; ++i) {
        *offsets[i] = offset;
        offset += static_cast<uint32_t>(texts[i]->size() + 1);
    }
    header.chunkLength = static_cast<uint32_t>(sizeof header) + offset;
    header.blockedStatus = message.blockedStatus;

    CrmBytes bytes;
    Append(bytes, &header, sizeof header);
    Append(bytes, &message.report, sizeof message.report);
    std::memcpy(bytes.data() + sizeof header + offsetof(EventReport, userString),
                &message.userString, sizeof message.userString);
    for (const std::string* const text : texts) {
        AppendText(bytes, *text);
    }
    if (message.packet) {
        PacketChunk chunk;
        chunk.packet = message.packet->info;
        chunk.chunkLength = static_cast<uint32_t>(sizeof chunk + message.packet->bytes.size());
        Append(bytes, &chunk, sizeof chunk);
        Append(bytes, message.packet->bytes.data(), message.packet->bytes.size());
    }
    CrmBytes pairs;
    for (const auto& [name, value] : message.pairs) {
        AppendText(pairs, name);
        AppendText(pairs, value);
    }
    const ChunkHeader pairsHeader{kChunkNameValues,
                                  static_cast<uint32_t>(sizeof(ChunkHeader) + pairs.size() + 1)};
    Append(bytes, &pairsHeader, sizeof pairsHeader);
    Append(bytes, pairs.data(), pairs.size());
    AppendText(bytes, "");
    const ChunkHeader end{kChunkEnd, sizeof(ChunkHeader)};
    Append(bytes, &end, sizeof end);
    return bytes;
}

// A blocked TCP event with a packet of four bytes and two pairs.
inline tarnctl::CrmReport SampleReport() {
    tarnctl::CrmReport message;
    message.blockedStatus = kReportBlocked;
    message.report.issueId = 2019401;
    message.report.intruderIp = message.report.sourceIp = 0x0A010203;
    message.report.victimIp = message.report.destinationIp = 0xC0A80114;
    message.report.intruderPort = message.report.sourcePort = 51234;
    message.report.victimPort = message.report.destinationPort = 80;
    message.report.ipProtocol = 6;
    message.report.vlanId = 12;
    message.report.startTime = message.report.endTime = 1763022257;
    message.userResponse = "DISPLAY:WithRaw";
    message.userData = "ET SCAN: probe:high";
    message.pairs = {{"URL", "/index.html"}, {"server", "example.org"}};
    tarnctl::CrmPacket packet;
    packet.info.uPacketLength = 4;
    packet.info.iCapturedSize = 4;
    packet.info.uSeconds = 1763022257;
    packet.info.uMicroseconds = 250000;
    packet.bytes = {std::byte{0xDE}, std::byte{0xAD}, std::byte{0xBE}, std::byte{0xEF}};
    message.packet = packet;
    return message;
}

// Where the chunks of Encode(SampleReport()) begin.
inline size_t ChunkAt(const CrmBytes& bytes, uint32_t type) {
    size_t at = 0;
    while (true) {
        ChunkHeader header;
        std::memcpy(&header, bytes.data() + at, sizeof header);
        if (header.chunkType == type) {
            return at;
        }
        at += header.chunkLength;
    }
}

inline void PutWord(CrmBytes& bytes, size_t at, uint32_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}
