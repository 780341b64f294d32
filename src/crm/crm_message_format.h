#pragma once

// A text message to the CRM, as one datagram on its message socket: this header, then the text.
// docs/formats/crm_message.md describes it in full. All words are in host byte order.
//
// Threads: no state; anyone may include it.

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tarn::crm {

inline constexpr uint16_t kMessageType = 1237;

enum class MessageKind : uint32_t { kError = 0, kInformation = 1 };

// At most 512 bytes of a text are counted. The byte after them, usually the NUL, is sent too.
inline constexpr size_t kTextLimit = 512;
inline constexpr size_t kTextBytes = kTextLimit + 1;

struct MessageHeader {
    uint32_t reserved;  // always 0
    uint16_t type;      // kMessageType
    uint16_t length;    // bytes of the datagram, this header included
    uint32_t time;      // seconds since the epoch, lower 32 bits
    uint32_t zero;      // always 0
    MessageKind kind;
};

inline constexpr size_t kMessageBytes = sizeof(MessageHeader) + kTextBytes;

static_assert(sizeof(MessageHeader) == 20);
static_assert(offsetof(MessageHeader, reserved) == 0);
static_assert(offsetof(MessageHeader, type) == 4);
static_assert(offsetof(MessageHeader, length) == 6);
static_assert(offsetof(MessageHeader, time) == 8);
static_assert(offsetof(MessageHeader, zero) == 12);
static_assert(offsetof(MessageHeader, kind) == 16);
static_assert(std::is_trivially_copyable_v<MessageHeader>);
static_assert(std::is_standard_layout_v<MessageHeader>);
static_assert(std::has_unique_object_representations_v<MessageHeader>);
static_assert(kMessageBytes == 533);

}  // namespace tarn::crm
