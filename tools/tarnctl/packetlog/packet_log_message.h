#pragma once

// A datagram to the packet logging daemon, taken apart and put into words.
//
// Threads: pure functions.

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>

#include "tarnctl/common/display.h"
#include "tarnctl/packetlog/captured_packet.h"

namespace tarnctl {

// What a datagram holds beside its text.
struct PacketLogMessage {
    std::string line;       // for a person; texts from outside as in ForTerminal
    std::string json;       // one object with every field
    CapturedPacket packet;  // of type 4; no bytes: there is none
};

// Empty, or the reason why this is no message. The packet's bytes stay those of the datagram.
[[nodiscard]] std::string DecodePacketLogMessage(std::span<const std::byte> datagram,
                                                 PacketLogMessage& message,
                                                 const Display& display = {});

// "Name field=value field=value": the name, and every other field but "type", for a person.
[[nodiscard]] std::string FieldsAsLine(const nlohmann::ordered_json& fields,
                                       const Display& display = {});

}  // namespace tarnctl
