#include "crm/crm_event_message.h"

#include <cstdint>
#include <iterator>
#include <string_view>

#include "config/event_rule_node.h"
#include "crm/crm_event_source.h"
#include "logging/log.h"
#include "ring/zero_pieces.h"

using vald::Log;

namespace {

// The wire counts in 32 bits, and so does the ring.
uint32_t WireLength(size_t length) {
    return static_cast<uint32_t>(length);
}

}  // namespace

CrmEventMessage::CrmEventMessage(const CrmEventSource& source)
    : m_arena(m_room.data(), m_room.size()), m_pieces(&m_arena), m_userData(&m_arena) {
    // One reservation each, so that the arena is not spent on growing.
    m_pieces.reserve(kFixedPieces + 2 * source.m_nameValues.size());
    if (!IsSeverity(source.m_severity)) {
        Log::GetInstance()->Write(Log::kWarning, "Unknown event severity, send as low.");
    }
    const std::string_view severity = SeverityWord(source.m_severity);
    const std::string& name = source.m_eventName.Text();
    m_userData.reserve(name.size() + severity.size() + 2);
    m_userData.append(",").append(name).append(":").append(severity);

    AddReport(source);
    AddPacket(source);
    AddNameValues(source);

    m_end.chunkType = kChunkEnd;
    m_end.chunkLength = sizeof(m_end);
    Add(&m_end, sizeof(m_end));
}

bool CrmEventMessage::IsSeverity(uint32_t severity) {
    return severity == kSeverityLow || severity == kSeverityMedium || severity == kSeverityHigh;
}

std::string_view CrmEventMessage::SeverityWord(uint32_t severity) {
    switch (severity) {
        case kSeverityMedium:
            return "medium";
        case kSeverityHigh:
            return "high";
        default:
            return "low";
    }
}

void CrmEventMessage::AddReport(const CrmEventSource& source) {
    m_header.blockedStatus = source.m_blockedStatus;
    Add(&m_header, sizeof(m_header));
    Add(&source.m_report, sizeof(source.m_report));

    size_t offset = sizeof(EventReport);
    m_header.nameValuesOffset = WireLength(offset);
    offset += AddList(NameValues());
    m_header.userResponseOffset = WireLength(offset);
    offset += AddList(source.m_userResponse.Text());
    m_header.userDataOffset = WireLength(offset);
    offset += AddList(m_userData);
    m_header.sensorNameOffset = WireLength(offset);
    offset += AddString(SensorName());
    m_header.chunkLength = WireLength(sizeof(m_header) + offset);
}

void CrmEventMessage::AddPacket(const CrmEventSource& source) {
    if (!source.m_sendRaw || source.m_packet.pData == nullptr) {
        return;
    }
    Add(&source.m_rawChunk, sizeof(source.m_rawChunk));
    Add(source.m_packet.pData, source.m_heldBytes);
    AddZeros(static_cast<uint32_t>(source.m_packet.iCapturedSize) - source.m_heldBytes);
}

void CrmEventMessage::AddNameValues(const CrmEventSource& source) {
    static constexpr char kEndOfList = '\0';

    Add(&m_pairsHeader, sizeof(m_pairsHeader));
    size_t length = sizeof(m_pairsHeader);
    for (const auto& [key, value, zeros] : source.m_nameValues) {
        length += AddString(key);
        // The NUL of the text is the first of the zeros, and the last of them is the value's NUL.
        length += AddString(value.Text());
        length += AddZeros(zeros);
    }
    Add(&kEndOfList, sizeof(kEndOfList));
    length += sizeof(kEndOfList);

    m_pairsHeader.chunkType = kChunkNameValues;
    m_pairsHeader.chunkLength = WireLength(length);
}

void CrmEventMessage::Add(const void* data, size_t length) {
    // The ring only reads what the pieces point at; iovec has no const form.
    m_pieces.push_back({const_cast<void*>(data), length});
}

size_t CrmEventMessage::AddZeros(uint32_t count) {
    GatherZeros(count, std::back_inserter(m_pieces));
    return count;
}

size_t CrmEventMessage::AddString(TerminatedText text) {
    const size_t length = text.length + 1;
    Add(text.data, length);
    return length;
}

size_t CrmEventMessage::AddList(TerminatedText list) {
    if (list.length > 0 && *list.data == ',') {
        return AddString({list.data + 1, list.length - 1});
    }
    return AddString(list);
}
