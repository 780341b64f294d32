#include "tarnctl/packetlog/packet_log_message.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "packet_log/packet_log_control_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using namespace PacketLogCtrl;
using nlohmann::ordered_json;

struct Kind {
    uint32_t type;
    uint32_t length;
    const char* name;
};

constexpr Kind kKinds[] = {
    {kEngineStarting, 8, "EngineStarting"},
    {kNewConnectionCapture, 96, "NewConnectionCapture"},
    {kInterfaceCapture, 92, "InterfaceCapture"},
    {kOffendingPacketCapture, 120, "OffendingPacketCapture"},
    {kStartRollingPacketCapture, 28, "StartRollingPacketCapture"},
    {kEndRollingPacketCapture, 8, "EndRollingPacketCapture"},
    {kConfigureRollingPacketCapture, 28, "ConfigureRollingPacketCapture"},
    {kStartDropPacketCapture, 28, "StartDropPacketCapture"},
    {kEndDropPacketCapture, 8, "EndDropPacketCapture"},
    {kConfigureDropPacketCapture, 28, "ConfigureDropPacketCapture"},
    {kEngineShuttingDown, 8, "EngineShuttingDown"},
    {kConnectionCaptureNotice, 24, "ConnectionCaptureNotice"},
    {kText, 128, "Text"},
    {kType15, 8, "Type15"},
    {kType16, 8, "Type16"},
    {kReloadEvents, 8, "ReloadEvents"},
};

const Kind* FindKind(uint32_t type) {
    for (const Kind& kind : kKinds) {
        if (kind.type == type) {
            return &kind;
        }
    }
    return nullptr;
}

template <typename Message>
Message As(std::span<const std::byte> datagram) {
    Message message;
    static_assert(sizeof message <= kControlDatagramBytes);
    std::memcpy(&message, datagram.data(), sizeof message);
    return message;
}

std::string_view TextIn(const char* text, size_t limit) {
    return {text, strnlen(text, limit)};
}

template <typename Message>
void AddLimits(const Message& message, ordered_json& fields) {
    fields["fileFormat"] = message.uFileFormat;
    fields["maxFiles"] = message.uMaxFiles;
    fields["maxFileSize"] = message.uMaxFileSize;
}

void AddConnectionCapture(std::span<const std::byte> datagram, ordered_json& fields) {
    const auto message = As<LogControlMessage_NewConnectionCapture>(datagram);
    AddLimits(message, fields);
    fields["time"] = TimeAsJson(message.uSeconds);
    fields["connectionId"] = message.uConnectionID;
    fields["eventId"] = message.uEventID;
    fields["packetSaveCount"] = message.uPacketSaveCount;
    fields["userString"] = TextAsJson(TextIn(message.szUserString, kUserStringBytes));
}

void AddInterfaceCapture(std::span<const std::byte> datagram, ordered_json& fields) {
    const auto message = As<LogControlMessage_InterfaceCapture>(datagram);
    AddLimits(message, fields);
    fields["time"] = TimeAsJson(message.uSeconds);
    fields["eventId"] = message.uEventID;
    fields["packetSaveCount"] = message.uPacketSaveCount;
    fields["interfaces"] = message.uInterfaces;
    fields["userString"] = TextAsJson(TextIn(message.szUserString, kUserStringBytes));
}

// What a reader of the capture file needs to find the report of the packet.
std::string CommentOn(const LogControlMessage_OffendingPacketCapture& message) {
    std::string comment = "signature " + std::to_string(message.uEventID);
    if (message.szUserString[0] != '\0') {
        comment += ", from " + ForTerminal(TextIn(message.szUserString, kUserStringBytes));
    }
    if (message.uFrameNumber != 0) {
        comment += ", frame " + std::to_string(message.uFrameNumber);
    }
    if (message.uPacketHash != 0) {
        comment += ", hash " + std::to_string(message.uPacketHash);
    }
    return comment;
}

CapturedPacket PacketOf(const LogControlMessage_OffendingPacketCapture& message,
                        std::span<const std::byte> datagram) {
    return {message.uEventID,
            message.uMaxFiles,
            message.uMaxFileSize,
            message.uSeconds,
            message.uMicroseconds,
            message.uPacketLength,
            datagram.subspan(kControlDatagramBytes),
            CommentOn(message)};
}

void AddPacketCapture(std::span<const std::byte> datagram, ordered_json& fields) {
    const auto message = As<LogControlMessage_OffendingPacketCapture>(datagram);
    AddLimits(message, fields);
    fields["packetHash"] = message.uPacketHash;
    fields["eventId"] = message.uEventID;
    fields["userString"] = TextAsJson(TextIn(message.szUserString, kUserStringBytes));
    fields["packetLength"] = message.uPacketLength;
    fields["capturedSize"] = message.iCapturedSize;
    fields["time"] = TimeAsJson(message.uSeconds, message.uMicroseconds);
    fields["frameNumber"] = message.uFrameNumber;
    fields["reserved"] = message.uReserved;
    fields["flags"] = message.uFlags;
    fields["adapterId"] = message.uAdapterID;
}

void AddSettings(std::span<const std::byte> datagram, ordered_json& fields) {
    const auto message = As<LogControlMessage_CaptureSettings>(datagram);
    AddLimits(message, fields);
    fields["interfaces"] = message.uInterfaces;
}

void AddBody(std::span<const std::byte> datagram, uint32_t type, ordered_json& fields) {
    switch (type) {
        case kNewConnectionCapture:
            AddConnectionCapture(datagram, fields);
            break;
        case kInterfaceCapture:
            AddInterfaceCapture(datagram, fields);
            break;
        case kOffendingPacketCapture:
            AddPacketCapture(datagram, fields);
            break;
        case kStartRollingPacketCapture:
        case kConfigureRollingPacketCapture:
        case kStartDropPacketCapture:
        case kConfigureDropPacketCapture:
            AddSettings(datagram, fields);
            break;
        case kConnectionCaptureNotice: {
            const auto message = As<LogControlMessage_ConnectionCaptureNotice>(datagram);
            fields["connectionId"] = message.uConnectionID;
            fields["time"] = TimeAsJson(message.uSeconds);
            break;
        }
        case kText: {
            const auto message = As<LogControlMessage_Text>(datagram);
            fields["text"] = TextAsJson(TextIn(message.szText, kTextBytes));
            break;
        }
        default:
            break;
    }
}

// The bytes after the 128 must be those that the message names.
std::string CheckPayload(std::span<const std::byte> datagram, uint32_t type) {
    const size_t after = datagram.size() - kControlDatagramBytes;
    if (after == 0) {
        return {};
    }
    if (type != kOffendingPacketCapture) {
        return Counted(after, "byte") + " after a message without a packet";
    }
    const int32_t named = As<LogControlMessage_OffendingPacketCapture>(datagram).iCapturedSize;
    if (named < 0 || static_cast<size_t>(named) != after) {
        return "a captured size of " + std::to_string(named) + " and " + Counted(after, "byte") +
               " of packet";
    }
    return {};
}

}  // namespace

std::string FieldsAsLine(const ordered_json& fields, const Display& display) {
    constexpr size_t kNameColumns = 22;
    std::string line = fields.at("name").get<std::string>();
    if (display.isTerminal && line.size() < kNameColumns) {
        line.resize(kNameColumns, ' ');
    }
    for (const auto& [name, value] : fields.items()) {
        if (name != "type" && name != "name") {
            line += " " + name + "=" +
                    ForTerminal(value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
    return line;
}

std::string CheckPacketLogMessage(std::span<const std::byte> datagram) {
    if (datagram.size() < kControlDatagramBytes) {
        return "shorter than " + std::to_string(kControlDatagramBytes) + " bytes";
    }
    const auto head = As<LogControlMessage>(datagram);
    const Kind* const kind = FindKind(head.uType);
    if (kind == nullptr) {
        return "unknown type " + std::to_string(head.uType);
    }
    if (head.uLength != kind->length) {
        return "type " + std::to_string(head.uType) + " with a length of " +
               std::to_string(head.uLength) + " and not " + std::to_string(kind->length);
    }
    return CheckPayload(datagram, head.uType);
}

CapturedPacket PacketIn(std::span<const std::byte> datagram) {
    return As<LogControlMessage>(datagram).uType == kOffendingPacketCapture
               ? PacketOf(As<LogControlMessage_OffendingPacketCapture>(datagram), datagram)
               : CapturedPacket();
}

std::string DecodePacketLogMessage(std::span<const std::byte> datagram, PacketLogMessage& message,
                                   const Display& display) {
    std::string reason = CheckPacketLogMessage(datagram);
    if (!reason.empty()) {
        return reason;
    }
    const uint32_t type = As<LogControlMessage>(datagram).uType;
    ordered_json fields;
    fields["type"] = type;
    fields["name"] = FindKind(type)->name;
    AddBody(datagram, type, fields);
    message.line = FieldsAsLine(fields, display);
    const CapturedPacket packet = PacketIn(datagram);
    if (!packet.bytes.empty()) {
        fields["packet"] = Base64(packet.bytes);
    }
    message.json = fields.dump();
    return {};
}

}  // namespace tarnctl
