#include "tarnctl/common/packet_summary.h"

#include <netinet/in.h>

#include <bit>
#include <cstring>

#include "quarantine/address_text.h"
#include "tarnctl/common/protocol_name.h"

namespace tarnctl {
namespace {

using Bytes = std::span<const std::byte>;

constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeArp = 0x0806;
constexpr uint16_t kTypeIpv6 = 0x86DD;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeServiceVlan = 0x88A8;
constexpr size_t kIpv4Header = 20;
constexpr size_t kIpv6Header = 40;
constexpr size_t kLeastTcp = 14;  // up to the flags
// Raw IP by other numbers: as libpcap has it here, and of one family each.
constexpr uint32_t kRawIpOfLibrary = 12;
constexpr uint32_t kRawIpv4 = 228;
constexpr uint32_t kRawIpv6 = 229;
constexpr int kMostExtensions = 16;  // of IPv6; no real packet has as many

uint8_t ByteAt(Bytes bytes, size_t at) {
    return std::to_integer<uint8_t>(bytes[at]);
}

uint16_t Big16At(Bytes bytes, size_t at) {
    return static_cast<uint16_t>(ByteAt(bytes, at) << 8 | ByteAt(bytes, at + 1));
}

template <size_t N>
std::array<uint8_t, N> AddressAt(Bytes bytes, size_t at) {
    std::array<uint8_t, N> address = {};
    std::memcpy(address.data(), bytes.data() + at, N);
    return address;
}

// What follows the link's header, and its type; 0 for what is told by the first digit of IP.
struct Network {
    Bytes bytes;
    uint16_t type = 0;
    bool isKnown = false;
};

Network AfterTags(Bytes bytes, uint16_t type) {
    while ((type == kTypeVlan || type == kTypeServiceVlan) && bytes.size() >= 4) {
        type = Big16At(bytes, 2);
        bytes = bytes.subspan(4);
    }
    return {bytes, type, true};
}

Network NetworkOf(Bytes packet, uint32_t linkType) {
    constexpr size_t kEthernet = 14;
    constexpr size_t kCooked = 16;
    constexpr size_t kCooked2 = 20;
    constexpr size_t kFamily = 4;
    switch (linkType) {
        case kLinkEthernet:
            return packet.size() < kEthernet
                       ? Network{}
                       : AfterTags(packet.subspan(kEthernet), Big16At(packet, kEthernet - 2));
        case kLinkCooked:
            return packet.size() < kCooked
                       ? Network{}
                       : AfterTags(packet.subspan(kCooked), Big16At(packet, kCooked - 2));
        case kLinkCooked2:
            return packet.size() < kCooked2
                       ? Network{}
                       : AfterTags(packet.subspan(kCooked2), Big16At(packet, 0));
        case kLinkNull:
            return packet.size() < kFamily ? Network{} : Network{packet.subspan(kFamily), 0, true};
        case kLinkRawIp:
        case kRawIpOfLibrary:
        case kRawIpv4:
        case kRawIpv6:
            return {packet, 0, true};
        default:
            return {};
    }
}

std::string TcpFlags(uint8_t flags) {
    constexpr const char* kNames[] = {"FIN", "SYN", "RST", "PSH", "ACK", "URG", "ECE", "CWR"};
    std::string text;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if ((flags >> bit & 1U) != 0) {
            text += std::string(text.empty() ? "" : " ") + kNames[bit];
        }
    }
    return text;
}

void Transport(Bytes bytes, bool isFragment, PacketSummary& summary) {
    const uint8_t protocol = *summary.protocol;
    std::string more;
    if (isFragment) {
        more = "fragment";
    } else if ((protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) && bytes.size() >= 4) {
        summary.sourcePort = Big16At(bytes, 0);
        summary.destinationPort = Big16At(bytes, 2);
        if (protocol == IPPROTO_TCP && bytes.size() >= kLeastTcp) {
            summary.flags = TcpFlags(ByteAt(bytes, kLeastTcp - 1));
            more = summary.flags;
        }
    } else if ((protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6) && bytes.size() >= 2) {
        more = "type " + std::to_string(ByteAt(bytes, 0)) + " code " +
               std::to_string(ByteAt(bytes, 1));
    }
    summary.line = EndpointName(summary.source, summary.sourcePort) + " -> " +
                   EndpointName(summary.destination, summary.destinationPort) + " " +
                   ProtocolName(protocol) + (more.empty() ? "" : " " + more);
}

void Ipv4(Bytes bytes, PacketSummary& summary) {
    constexpr size_t kFragment = 6;
    constexpr uint16_t kFragmentOffset = 0x1FFF;
    constexpr size_t kProtocol = 9;
    constexpr size_t kSource = 12;
    constexpr size_t kDestination = 16;
    const size_t header = size_t{ByteAt(bytes, 0) & 0x0FU} * 4;
    summary.source = Ipv4Text(std::bit_cast<in_addr_t>(AddressAt<4>(bytes, kSource)));
    summary.destination = Ipv4Text(std::bit_cast<in_addr_t>(AddressAt<4>(bytes, kDestination)));
    summary.protocol = ByteAt(bytes, kProtocol);
    const bool isFragment = (Big16At(bytes, kFragment) & kFragmentOffset) != 0;
    const bool hasMore = header >= kIpv4Header && header <= bytes.size();
    Transport(hasMore ? bytes.subspan(header) : Bytes(), isFragment, summary);
}

void Ipv6(Bytes bytes, PacketSummary& summary) {
    constexpr size_t kNext = 6;
    constexpr size_t kSource = 8;
    constexpr size_t kDestination = 24;
    constexpr uint16_t kFragmentOffset = 0xFFF8;
    summary.source = Ipv6Text(AddressAt<16>(bytes, kSource));
    summary.destination = Ipv6Text(AddressAt<16>(bytes, kDestination));
    uint8_t next = ByteAt(bytes, kNext);
    Bytes rest = bytes.subspan(kIpv6Header);
    bool isFragment = false;
    for (int i = 0; i < kMostExtensions && rest.size() >= 8; ++i) {
        size_t length = (size_t{ByteAt(rest, 1)} + 1) * 8;
        if (next == IPPROTO_FRAGMENT) {
            isFragment = isFragment || (Big16At(rest, 2) & kFragmentOffset) != 0;
            length = 8;
        } else if (next != IPPROTO_HOPOPTS && next != IPPROTO_ROUTING && next != IPPROTO_DSTOPTS) {
            break;
        }
        next = ByteAt(rest, 0);
        rest = length <= rest.size() ? rest.subspan(length) : Bytes();
    }
    summary.protocol = next;
    Transport(rest, isFragment, summary);
}

}  // namespace

std::string EndpointName(const std::string& address, std::optional<uint16_t> port) {
    if (!port) {
        return address;
    }
    const bool isIpv6 = address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address + "]" : address) + ":" + std::to_string(*port);
}

PacketSummary SummaryOf(Bytes packet, uint32_t linkType) {
    PacketSummary summary;
    const Network network = NetworkOf(packet, linkType);
    const Bytes bytes = network.bytes;
    const unsigned version = bytes.empty() ? 0U : ByteAt(bytes, 0) >> 4U;
    const bool isUntyped = network.isKnown && network.type == 0;
    if ((network.type == kTypeIpv4 || isUntyped) && version == 4 && bytes.size() >= kIpv4Header) {
        Ipv4(bytes, summary);
    } else if ((network.type == kTypeIpv6 || isUntyped) && version == 6 &&
               bytes.size() >= kIpv6Header) {
        Ipv6(bytes, summary);
    } else if (network.type == kTypeArp) {
        summary.line = "ARP";
    } else if (!network.isKnown) {
        summary.line = "link type " + std::to_string(linkType);
    } else {
        summary.line = isUntyped ? "no IP" : "Ethernet type " + std::to_string(network.type);
    }
    return summary;
}

}  // namespace tarnctl
