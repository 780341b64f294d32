// A control message as a text for a person.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <string>

#include "packet_log/packet_log_ctrl_if.h"

namespace PacketLogCtrl {
namespace {

// The message in full. What a message shorter than its type's form leaves out is zero.
template <typename Message>
Message InFull(const LogControlMessage* message) {
    std::array<std::byte, sizeof(Message)> full{};
    std::memcpy(full.data(), message, std::min<size_t>(message->uLength, full.size()));
    return std::bit_cast<Message>(full);
}

void WriteSettings(const LogControlMessage* message, std::ostringstream& stream) {
    const auto settings = InFull<LogControlMessage_CaptureSettings>(message);
    stream << "FileFormat= " << settings.uFileFormat << "  Interfaces=" << settings.uInterfaces
           << " MaxFiles=" << settings.uMaxFiles << " MaxFileSize=" << settings.uMaxFileSize;
}

void WriteConnection(const LogControlMessage* message, std::ostringstream& stream) {
    const auto capture = InFull<LogControlMessage_NewConnectionCapture>(message);
    stream << "ConnectionID: " << capture.uConnectionID << "\nEventID: " << capture.uEventID
           << "\nPacketSaveCount: " << capture.uPacketSaveCount << "\nUserString:  "
           << std::string(capture.szUserString, strnlen(capture.szUserString, kUserStringBytes));
}

void WritePacket(const LogControlMessage* message, std::ostringstream& stream) {
    const auto capture = InFull<LogControlMessage_OffendingPacketCapture>(message);
    stream << "  EventID= " << capture.uEventID << "  PacketHash= " << capture.uPacketHash
           << "\n capturedSize=" << capture.iCapturedSize << " frameNumber=" << capture.uFrameNumber
           << " flags=" << capture.uFlags << " adapterID=" << capture.uAdapterID;
}

}  // namespace

void PacketLogCtrlIF::SerializeStruct(const LogControlMessage* message,
                                      std::ostringstream& stream) {
    stream.str(std::string());
    stream.clear();
    if (message == nullptr) {
        stream << "Null pointer passed in to Serialize Struct";
        return;
    }
    stream << " Message of type/len " << message->uType << "/" << message->uLength;
    switch (message->uType) {
        case kEngineStarting:
            stream << " LogControlMessage_EngineStarting.";
            break;
        case kNewConnectionCapture:
            stream << " LogControlMessage_NewConnectionCapture\n";
            WriteConnection(message, stream);
            break;
        case kOffendingPacketCapture:
            stream << " LogControlMessage_OffendingPacketCapture";
            WritePacket(message, stream);
            break;
        case kStartRollingPacketCapture:
            stream << " LogControlMessage_StartRollingPacketCapture  ";
            WriteSettings(message, stream);
            break;
        case kEndRollingPacketCapture:
            stream << " LogControlMessage_EndRollingPacketCapture";
            break;
        case kConfigureRollingPacketCapture:
            stream << " LogControlMessage_ConfigureRollingPacketCapture ";
            WriteSettings(message, stream);
            break;
        case kEngineShuttingDown:
            stream << " LogControlMessage_EngineShuttingDown.";
            break;
        default:
            stream << " Unknown message type.";
            break;
    }
}

}  // namespace PacketLogCtrl
