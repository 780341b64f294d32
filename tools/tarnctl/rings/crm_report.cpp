#include "tarnctl/rings/crm_report.h"

#include <algorithm>
#include <cstring>

#include "tarnctl/common/counted.h"

namespace tarnctl {
namespace {

using Bytes = std::span<const std::byte>;

// Copies a wire struct from the front of `bytes`, which hold at least as much.
template <typename T>
T Load(Bytes bytes) {
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Takes the chunk at the front off `rest`. A chunk has at least `least` bytes.
std::string TakeChunk(Bytes& rest, const char* name, uint32_t type, size_t least, Bytes& chunk) {
    const std::string label = std::string("the ") + name + " chunk";
    if (rest.size() < sizeof(ChunkHeader)) {
        return label + " is missing";
    }
    const auto header = Load<ChunkHeader>(rest);
    if (header.chunkType != type) {
        return label + " is missing: type " + std::to_string(header.chunkType) +
               " stands in its place";
    }
    if (header.chunkLength < least) {
        return label + " has a length of " + std::to_string(header.chunkLength) +
               " bytes and needs at least " + std::to_string(least);
    }
    if (header.chunkLength > rest.size()) {
        return label + " has a length of " + std::to_string(header.chunkLength) +
               " bytes where the message has " + std::to_string(rest.size()) + " left";
    }
    chunk = rest.first(header.chunkLength);
    rest = rest.subspan(header.chunkLength);
    return {};
}

// Takes the NUL-terminated text at the front off `rest`. False when no NUL ends it.
bool TakeText(Bytes& rest, std::string& text) {
    const auto* const start = reinterpret_cast<const char*>(rest.data());
    const size_t length = strnlen(start, rest.size());
    if (length == rest.size()) {
        return false;
    }
    text.assign(start, length);
    rest = rest.subspan(length + 1);
    return true;
}

std::string DecodeReport(Bytes chunk, CrmReport& message) {
    const auto header = Load<ReportChunkHeader>(chunk);
    message.blockedStatus = header.blockedStatus;
    Bytes report = chunk.subspan(sizeof header);
    message.report = Load<EventReport>(report);
    std::memcpy(&message.userString, &message.report.userString, sizeof message.userString);
    message.report.userString = nullptr;
    if (message.report.reportVersion != kReportVersion) {
        return "the report has the version " + std::to_string(message.report.reportVersion);
    }

    struct Text {
        const char* name;
        uint32_t offset;
        std::string& text;
    };
    const Text texts[] = {
        {"name values", header.nameValuesOffset, message.nameValues},
        {"user response", header.userResponseOffset, message.userResponse},
        {"user data", header.userDataOffset, message.userData},
        {"sensor name", header.sensorNameOffset, message.sensorName},
    };
    size_t expected = sizeof(EventReport);
    for (const Text& entry : texts) {
        if (entry.offset != expected) {
            return std::string("the ") + entry.name + " string is said to be at " +
                   std::to_string(entry.offset) + " and is at " + std::to_string(expected);
        }
        Bytes rest = report.subspan(expected);
        if (!TakeText(rest, entry.text)) {
            return std::string("the ") + entry.name + " string has no end";
        }
        expected = report.size() - rest.size();
    }
    if (expected != report.size()) {
        return Counted(report.size() - expected, "byte") + " after the strings";
    }
    return {};
}

std::string DecodePacket(Bytes chunk, CrmReport& message) {
    CrmPacket packet;
    packet.info = Load<PacketChunk>(chunk).packet;
    packet.info.pData = nullptr;
    const Bytes bytes = chunk.subspan(sizeof(PacketChunk));
    if (packet.info.iCapturedSize < 0 ||
        static_cast<size_t>(packet.info.iCapturedSize) != bytes.size()) {
        return "the packet is said to have " + std::to_string(packet.info.iCapturedSize) +
               " bytes and has " + std::to_string(bytes.size());
    }
    packet.bytes.assign(bytes.begin(), bytes.end());
    message.packet = std::move(packet);
    return {};
}

std::string DecodePairs(Bytes chunk, CrmReport& message) {
    Bytes rest = chunk.subspan(sizeof(ChunkHeader));
    while (true) {
        std::string key;
        std::string value;
        if (!TakeText(rest, key)) {
            return "the pairs have no end";
        }
        if (key.empty()) {
            break;
        }
        if (!TakeText(rest, value)) {
            return "the value of a pair has no end";
        }
        const auto same = [&key](const auto& pair) { return pair.first == key; };
        if (std::any_of(message.pairs.begin(), message.pairs.end(), same)) {
            return "two pairs have the same name";
        }
        message.pairs.emplace_back(std::move(key), std::move(value));
    }
    if (!rest.empty()) {
        return Counted(rest.size(), "byte") + " after the end of the pairs";
    }
    return {};
}

bool NextChunkIs(Bytes rest, uint32_t type) {
    return rest.size() >= sizeof(ChunkHeader) && Load<ChunkHeader>(rest).chunkType == type;
}

}  // namespace

std::string_view CrmReport::EventName() const {
    return std::string_view(userData).substr(0, userData.rfind(':'));
}

std::string_view CrmReport::Severity() const {
    const size_t colon = userData.rfind(':');
    return colon == std::string::npos ? std::string_view()
                                      : std::string_view(userData).substr(colon + 1);
}

std::string DecodeCrmReport(Bytes bytes, CrmReport& message) {
    message = CrmReport();
    Bytes rest = bytes;
    Bytes chunk;
    std::string reason;

    constexpr size_t kLeastReport = sizeof(ReportChunkHeader) + sizeof(EventReport) + 4;
    reason = TakeChunk(rest, "report", kChunkReport, kLeastReport, chunk);
    if (reason.empty()) {
        reason = DecodeReport(chunk, message);
    }
    if (reason.empty() && NextChunkIs(rest, kChunkPacket)) {
        reason = TakeChunk(rest, "packet", kChunkPacket, sizeof(PacketChunk), chunk);
        if (reason.empty()) {
            reason = DecodePacket(chunk, message);
        }
    }
    if (reason.empty()) {
        reason = TakeChunk(rest, "name value", kChunkNameValues, sizeof(ChunkHeader) + 1, chunk);
    }
    if (reason.empty()) {
        reason = DecodePairs(chunk, message);
    }
    if (reason.empty()) {
        reason = TakeChunk(rest, "end", kChunkEnd, sizeof(ChunkHeader), chunk);
    }
    if (reason.empty() && chunk.size() != sizeof(ChunkHeader)) {
        reason = "the end chunk has a length of " + std::to_string(chunk.size()) + " bytes";
    }
    if (reason.empty() && !rest.empty()) {
        reason = Counted(rest.size(), "byte") + " after the end chunk";
    }
    return reason;
}

}  // namespace tarnctl
