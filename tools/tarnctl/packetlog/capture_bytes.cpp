#include "tarnctl/packetlog/capture_bytes.h"

#include <algorithm>
#include <cstddef>
#include <type_traits>

namespace tarnctl {
namespace {

constexpr uint32_t kSnapshotLength = 262144;  // longer than any packet that fits into a datagram
constexpr uint64_t kMicrosecondsPerSecond = 1000000;
constexpr std::string_view kProgram = "tarnctl packetlog";

namespace pcap {
constexpr uint32_t kMagic = 0xA1B2C3D4;  // times in microseconds
constexpr uint16_t kMajor = 2;
constexpr uint16_t kMinor = 4;
}  // namespace pcap

namespace pcapng {
constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kMajor = 1;
constexpr uint16_t kMinor = 0;
constexpr uint64_t kUnknownLength = UINT64_MAX;  // of a section that grows
constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kOptionComment = 1;
constexpr uint16_t kOptionProgram = 4;  // of a section header
constexpr size_t kBlockFrame = 12;      // type, length, and the length once more
constexpr size_t kPadding = 4;          // everything begins at a multiple of this
constexpr size_t kOptionLimit = UINT16_MAX;
}  // namespace pcapng

template <typename Word>
void Put(std::string& bytes, Word word) {
    static_assert(std::is_unsigned_v<Word>);
    bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
}

void PutPadded(std::string& bytes, std::string_view text) {
    bytes.append(text);
    bytes.resize((bytes.size() + pcapng::kPadding - 1) / pcapng::kPadding * pcapng::kPadding, '\0');
}

void PutOption(std::string& body, uint16_t code, std::string_view text) {
    text = text.substr(0, pcapng::kOptionLimit);
    Put(body, code);
    Put(body, static_cast<uint16_t>(text.size()));
    PutPadded(body, text);
}

void PutEndOfOptions(std::string& body) {
    Put(body, pcapng::kOptionEnd);
    Put(body, uint16_t{0});
}

// `body` is a multiple of four bytes long.
std::string Block(uint32_t type, const std::string& body) {
    const auto length = static_cast<uint32_t>(body.size() + pcapng::kBlockFrame);
    std::string block;
    block.reserve(length);
    Put(block, type);
    Put(block, length);
    block += body;
    Put(block, length);
    return block;
}

std::string_view TextOf(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

uint32_t OriginalLength(const CapturedPacket& packet) {
    return std::max(packet.length, static_cast<uint32_t>(packet.bytes.size()));
}

std::string PcapngHead(int linkType) {
    std::string section;
    Put(section, pcapng::kByteOrderMagic);
    Put(section, pcapng::kMajor);
    Put(section, pcapng::kMinor);
    Put(section, pcapng::kUnknownLength);
    PutOption(section, pcapng::kOptionProgram, kProgram);
    PutEndOfOptions(section);
    // Without an option that says otherwise the times of an interface are in microseconds.
    std::string interface;
    Put(interface, static_cast<uint16_t>(linkType));
    Put(interface, uint16_t{0});
    Put(interface, kSnapshotLength);
    return Block(pcapng::kSectionHeader, section) + Block(pcapng::kInterfaceDescription, interface);
}

std::string EnhancedPacket(const CapturedPacket& packet) {
    const uint64_t time = packet.seconds * kMicrosecondsPerSecond + packet.microseconds;
    std::string body;
    Put(body, uint32_t{0});  // the one interface
    Put(body, static_cast<uint32_t>(time >> 32U));
    Put(body, static_cast<uint32_t>(time));
    Put(body, static_cast<uint32_t>(packet.bytes.size()));
    Put(body, OriginalLength(packet));
    PutPadded(body, TextOf(packet.bytes));
    if (!packet.comment.empty()) {
        PutOption(body, pcapng::kOptionComment, packet.comment);
        PutEndOfOptions(body);
    }
    return Block(pcapng::kEnhancedPacket, body);
}

}  // namespace

std::string_view CaptureSuffix(CaptureFormat format) {
    return format == CaptureFormat::kPcapng ? "pcapng" : "pcap";
}

std::optional<CaptureFormat> CaptureFormatFrom(std::string_view name) {
    for (const CaptureFormat format : {CaptureFormat::kPcap, CaptureFormat::kPcapng}) {
        if (name == CaptureSuffix(format)) {
            return format;
        }
    }
    return std::nullopt;
}

std::string CaptureHead(CaptureFormat format, int linkType) {
    if (format == CaptureFormat::kPcapng) {
        return PcapngHead(linkType);
    }
    std::string head;
    Put(head, pcap::kMagic);
    Put(head, pcap::kMajor);
    Put(head, pcap::kMinor);
    Put(head, uint32_t{0});  // times are in UTC
    Put(head, uint32_t{0});  // and as exact as they are
    Put(head, kSnapshotLength);
    Put(head, static_cast<uint32_t>(linkType));
    return head;
}

std::string CaptureRecord(CaptureFormat format, const CapturedPacket& packet) {
    if (format == CaptureFormat::kPcapng) {
        return EnhancedPacket(packet);
    }
    std::string record;
    Put(record, packet.seconds);
    Put(record, packet.microseconds);
    Put(record, static_cast<uint32_t>(packet.bytes.size()));
    Put(record, OriginalLength(packet));
    record += TextOf(packet.bytes);
    return record;
}

}  // namespace tarnctl
