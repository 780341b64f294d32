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

// A datagram in words.
struct PacketLogMessage {
    std::string line;  // for a person; texts from outside as in ForTerminal
    std::string json;  // one object with every field
};

// Empty, or the reason why this is no message.
[[nodiscard]] std::string CheckPacketLogMessage(std::span<const std::byte> datagram);

// The packet of a message; no bytes: there is none. They stay those of the datagram.
[[nodiscard]] CapturedPacket PacketIn(std::span<const std::byte> datagram);

// Puts a message into words as well. Empty, or the reason why this is none.
[[nodiscard]] std::string DecodePacketLogMessage(std::span<const std::byte> datagram,
                                                 PacketLogMessage& message,
                                                 const Display& display = {});

// "Name field=value field=value": the name, and every other field but "type", for a person.
[[nodiscard]] std::string FieldsAsLine(const nlohmann::ordered_json& fields,
                                       const Display& display = {});

}  // namespace tarnctl
