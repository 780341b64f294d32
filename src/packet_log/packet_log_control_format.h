#pragma once

// The messages to the packet logging daemon's control socket, one per datagram. Each begins with
// its type and its length. The datagram is filled with zeros to 128 bytes, and with type 4 the
// packet's bytes follow them. docs/formats/packet_log_control.md has the tables and worked
// examples; integers are in host byte order.
//
//   type  length  message
//   1     8       EngineStarting
//   2     96      NewConnectionCapture
//   3     92      InterfaceCapture
//   4     120     OffendingPacketCapture
//   6     28      StartRollingPacketCapture
//   7     8       EndRollingPacketCapture
//   8     28      ConfigureRollingPacketCapture
//   9     28      StartDropPacketCapture
//   10    8       EndDropPacketCapture
//   11    28      ConfigureDropPacketCapture
//   12    8       EngineShuttingDown
//   13    24      ConnectionCaptureNotice
//   14    128     Text
//   15    8       Type15
//   16    8       Type16
//   17    8       ReloadEvents
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace PacketLogCtrl {

enum LogControlType : uint32_t {
    kEngineStarting = 1,
    kNewConnectionCapture = 2,
    kInterfaceCapture = 3,
    kOffendingPacketCapture = 4,
    kStartRollingPacketCapture = 6,
    kEndRollingPacketCapture = 7,
    kConfigureRollingPacketCapture = 8,
    kStartDropPacketCapture = 9,
    kEndDropPacketCapture = 10,
    kConfigureDropPacketCapture = 11,
    kEngineShuttingDown = 12,
    kConnectionCaptureNotice = 13,
    kText = 14,
    kType15 = 15,
    kType16 = 16,
    kReloadEvents = 17,
};

inline constexpr uint32_t kControlDatagramBytes = 128;  // without the packet of type 4
inline constexpr size_t kUserStringBytes = 56;          // a text this long has no NUL
inline constexpr size_t kTextBytes = 120;
inline constexpr size_t kTextLimit = 118;           // bytes of the text that are sent at most
inline constexpr uint32_t kAllInterfaces = 0xFFFF;  // interface number and mask alike
inline constexpr uint32_t kFormatPcap = 1;          // uFileFormat

// What every message begins with. Messages without a body are nothing else.
struct LogControlMessage {
    uint32_t uType = 0;
    uint32_t uLength = 0;  // bytes, these two words included; at most 128
};

using LogControlMessage_EngineStarting = LogControlMessage;
using LogControlMessage_EndRollingPacketCapture = LogControlMessage;
using LogControlMessage_EndDropPacketCapture = LogControlMessage;
using LogControlMessage_EngineShuttingDown = LogControlMessage;
using LogControlMessage_Type15 = LogControlMessage;
using LogControlMessage_Type16 = LogControlMessage;
using LogControlMessage_ReloadEvents = LogControlMessage;

struct LogControlMessage_NewConnectionCapture {
    LogControlMessage head{kNewConnectionCapture, 96};
    uint32_t uFileFormat = 0;
    uint32_t uMaxFiles = 0;
    uint32_t uMaxFileSize = 0;  // kilobytes
    uint32_t uSeconds = 0;      // capture time, 0 without a packet
    uint64_t uConnectionID = 0;
    uint32_t uEventID = 0;
    uint32_t uPacketSaveCount = 0;
    char szUserString[kUserStringBytes] = {};
};

struct LogControlMessage_InterfaceCapture {
    LogControlMessage head{kInterfaceCapture, 92};
    uint32_t uFileFormat = 0;
    uint32_t uMaxFiles = 0;
    uint32_t uMaxFileSize = 0;  // kilobytes
    uint32_t uSeconds = 0;      // capture time
    uint32_t uEventID = 0;
    uint32_t uPacketSaveCount = 0;
    uint32_t uInterfaces = 0;  // a bit for each interface, or kAllInterfaces
    char szUserString[kUserStringBytes] = {};
};

struct LogControlMessage_OffendingPacketCapture {
    LogControlMessage head{kOffendingPacketCapture, 120};
    uint32_t uFileFormat = 0;
    uint32_t uMaxFiles = 0;
    uint32_t uMaxFileSize = 0;  // kilobytes
    uint32_t reserved20 = 0;
    uint32_t uPacketHash = 0;
    uint32_t uEventID = 0;
    char szUserString[kUserStringBytes] = {};
    uint32_t uPacketLength = 0;  // of PacketInfo, as are the seven below it
    int32_t iCapturedSize = 0;   // bytes that follow the 128
    uint32_t uSeconds = 0;
    uint32_t uMicroseconds = 0;
    uint32_t uFrameNumber = 0;
    uint32_t uReserved = 0;
    uint32_t uFlags = 0;
    uint32_t uAdapterID = 0;
};

// The one shape of types 6, 8, 9 and 11.
struct LogControlMessage_CaptureSettings {
    LogControlMessage head{0, 28};
    uint32_t uFileFormat = 0;
    uint32_t uMaxFiles = 0;
    uint32_t uMaxFileSize = 0;
    uint32_t reserved20 = 0;
    uint32_t uInterfaces = 0;  // types 6 and 8: a bit for each; 9 and 11: a drop log setting
};

using LogControlMessage_StartRollingPacketCapture = LogControlMessage_CaptureSettings;
using LogControlMessage_ConfigureRollingPacketCapture = LogControlMessage_CaptureSettings;
using LogControlMessage_StartDropPacketCapture = LogControlMessage_CaptureSettings;
using LogControlMessage_ConfigureDropPacketCapture = LogControlMessage_CaptureSettings;

struct LogControlMessage_ConnectionCaptureNotice {
    LogControlMessage head{kConnectionCaptureNotice, 24};
    uint64_t uConnectionID = 0;
    uint32_t uSeconds = 0;
    uint32_t reserved20 = 0;
};

struct LogControlMessage_Text {
    LogControlMessage head{kText, 128};
    char szText[kTextBytes] = {};
};

// What each message promises beyond its offsets.
template <typename Message>
inline constexpr bool kIsWireMessage =
    std::is_trivially_copyable_v<Message>&& std::is_standard_layout_v<Message>&&
        std::has_unique_object_representations_v<Message> &&
    sizeof(Message) <= kControlDatagramBytes;

static_assert(sizeof(LogControlMessage) == 8);
static_assert(offsetof(LogControlMessage, uType) == 0);
static_assert(offsetof(LogControlMessage, uLength) == 4);
static_assert(kIsWireMessage<LogControlMessage>);

static_assert(sizeof(LogControlMessage_NewConnectionCapture) == 96);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, head) == 0);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uFileFormat) == 8);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uMaxFiles) == 12);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uMaxFileSize) == 16);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uSeconds) == 20);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uConnectionID) == 24);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uEventID) == 32);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, uPacketSaveCount) == 36);
static_assert(offsetof(LogControlMessage_NewConnectionCapture, szUserString) == 40);
static_assert(kIsWireMessage<LogControlMessage_NewConnectionCapture>);

static_assert(sizeof(LogControlMessage_InterfaceCapture) == 92);
static_assert(offsetof(LogControlMessage_InterfaceCapture, head) == 0);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uFileFormat) == 8);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uMaxFiles) == 12);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uMaxFileSize) == 16);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uSeconds) == 20);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uEventID) == 24);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uPacketSaveCount) == 28);
static_assert(offsetof(LogControlMessage_InterfaceCapture, uInterfaces) == 32);
static_assert(offsetof(LogControlMessage_InterfaceCapture, szUserString) == 36);
static_assert(kIsWireMessage<LogControlMessage_InterfaceCapture>);

static_assert(sizeof(LogControlMessage_OffendingPacketCapture) == 120);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, head) == 0);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uFileFormat) == 8);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uMaxFiles) == 12);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uMaxFileSize) == 16);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, reserved20) == 20);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uPacketHash) == 24);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uEventID) == 28);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, szUserString) == 32);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uPacketLength) == 88);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, iCapturedSize) == 92);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uSeconds) == 96);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uMicroseconds) == 100);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uFrameNumber) == 104);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uReserved) == 108);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uFlags) == 112);
static_assert(offsetof(LogControlMessage_OffendingPacketCapture, uAdapterID) == 116);
static_assert(kIsWireMessage<LogControlMessage_OffendingPacketCapture>);

static_assert(sizeof(LogControlMessage_CaptureSettings) == 28);
static_assert(offsetof(LogControlMessage_CaptureSettings, head) == 0);
static_assert(offsetof(LogControlMessage_CaptureSettings, uFileFormat) == 8);
static_assert(offsetof(LogControlMessage_CaptureSettings, uMaxFiles) == 12);
static_assert(offsetof(LogControlMessage_CaptureSettings, uMaxFileSize) == 16);
static_assert(offsetof(LogControlMessage_CaptureSettings, reserved20) == 20);
static_assert(offsetof(LogControlMessage_CaptureSettings, uInterfaces) == 24);
static_assert(kIsWireMessage<LogControlMessage_CaptureSettings>);

static_assert(sizeof(LogControlMessage_ConnectionCaptureNotice) == 24);
static_assert(offsetof(LogControlMessage_ConnectionCaptureNotice, head) == 0);
static_assert(offsetof(LogControlMessage_ConnectionCaptureNotice, uConnectionID) == 8);
static_assert(offsetof(LogControlMessage_ConnectionCaptureNotice, uSeconds) == 16);
static_assert(offsetof(LogControlMessage_ConnectionCaptureNotice, reserved20) == 20);
static_assert(kIsWireMessage<LogControlMessage_ConnectionCaptureNotice>);

static_assert(sizeof(LogControlMessage_Text) == 128);
static_assert(offsetof(LogControlMessage_Text, head) == 0);
static_assert(offsetof(LogControlMessage_Text, szText) == 8);
static_assert(kIsWireMessage<LogControlMessage_Text>);

}  // namespace PacketLogCtrl
