#pragma once

// The bytes of capture files, in both forms that their readers know: pcap, and pcapng, in which a
// packet has a comment.
//
// They are made here because libpcap writes no pcapng, and because a packet that does not fit on
// the disk can be taken back only by whoever does the writing. Words are in the byte order of the
// host, which both forms say.
//
// Threads: pure functions.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tarnctl/packetlog/captured_packet.h"

namespace tarnctl {

enum class CaptureFormat : uint8_t { kPcap, kPcapng };

// What a file's name ends in, without the dot; also the name of the format.
[[nodiscard]] std::string_view CaptureSuffix(CaptureFormat format);

// The format with that name.
[[nodiscard]] std::optional<CaptureFormat> CaptureFormatFrom(std::string_view name);

// What a file begins with. `linkType` as in the header of a capture file, below 65536.
[[nodiscard]] std::string CaptureHead(CaptureFormat format, int linkType);

// A packet. Its comment is cut to 65535 bytes, and in pcap it is left out.
[[nodiscard]] std::string CaptureRecord(CaptureFormat format, const CapturedPacket& packet);

}  // namespace tarnctl
