#pragma once

// The eight words of a PacketInfo that a capture request and a ring record both carry. The data
// pointer is not one of them.
//
// Threads: plain values.

#include "crm/packet_info_format.h"

namespace PacketLogCtrl {

template <typename Target>
void CopyPacketWords(const PacketInfo& packet, Target& target) {
    target.uPacketLength = packet.uPacketLength;
    target.iCapturedSize = packet.iCapturedSize;
    target.uSeconds = packet.uSeconds;
    target.uMicroseconds = packet.uMicroseconds;
    target.uFrameNumber = packet.uFrameNumber;
    target.uReserved = packet.uReserved;
    target.uFlags = packet.uFlags;
    target.uAdapterID = packet.uAdapterID;
}

}  // namespace PacketLogCtrl
