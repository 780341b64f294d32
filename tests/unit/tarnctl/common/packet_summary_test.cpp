#include "tarnctl/common/packet_summary.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace tarnctl {
namespace {

using Bytes = std::vector<std::byte>;

// Bytes from pairs of hexadecimal digits.
Bytes Hex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (const char letter : text) {
        if (letter == ' ') {
            continue;
        }
        digits += letter;
        if (digits.size() == 2) {
            bytes.push_back(static_cast<std::byte>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

const std::string kMacs = "020000000001 020000000002 ";
// TCP, from 10.0.0.1:1234 to 10.0.0.2:80, SYN and ACK.
const std::string kIpv4 = "45000028 00010000 4006 0000 0a000001 0a000002 ";
const std::string kTcp = "04d2 0050 00000001 00000002 5012 ffff 0000 0000";
const std::string kIpv6Addresses =
    "20010db8000000000000000000000001 20010db8000000000000000000000002 ";

std::string Line(const std::string& hex, uint32_t linkType = kLinkEthernet) {
    return SummaryOf(Hex(hex), linkType).line;
}

const char* const kExpected = "10.0.0.1:1234 -> 10.0.0.2:80 TCP SYN ACK";

}  // namespace

TEST(SummaryOf, ReadsAddressesPortsAndFlags) {
    const PacketSummary summary = SummaryOf(Hex(kMacs + "0800 " + kIpv4 + kTcp), kLinkEthernet);
    EXPECT_EQ(kExpected, summary.line);
    EXPECT_EQ("10.0.0.1", summary.source);
    EXPECT_EQ("10.0.0.2", summary.destination);
    EXPECT_EQ(1234, summary.sourcePort);
    EXPECT_EQ(80, summary.destinationPort);
    EXPECT_EQ(6, summary.protocol);
    EXPECT_EQ("SYN ACK", summary.flags);
}

TEST(SummaryOf, NamesEachFlag) {
    const std::string head = kIpv4 + "04d2 0050 00000001 00000002 50";
    EXPECT_EQ("10.0.0.1:1234 -> 10.0.0.2:80 TCP FIN SYN RST PSH ACK URG ECE CWR",
              Line(head + "ff", kLinkRawIp));
    EXPECT_EQ("10.0.0.1:1234 -> 10.0.0.2:80 TCP", Line(head + "00", kLinkRawIp));
}

TEST(SummaryOf, ReadsEachLinkType) {
    EXPECT_EQ(kExpected, Line(kMacs + "8100 0005 0800 " + kIpv4 + kTcp)) << "one tag";
    EXPECT_EQ(kExpected, Line(kMacs + "88a8 0005 8100 0006 0800 " + kIpv4 + kTcp)) << "two tags";
    EXPECT_EQ(kExpected, Line(kIpv4 + kTcp, kLinkRawIp));
    for (const uint32_t raw : {12U, 228U, 229U}) {
        EXPECT_EQ(kExpected, Line(kIpv4 + kTcp, raw));
    }
    EXPECT_EQ(kExpected, Line("02000000 " + kIpv4 + kTcp, kLinkNull));
    EXPECT_EQ(kExpected, Line("0000 0001 0006 0200000000010000 0800 " + kIpv4 + kTcp, kLinkCooked));
    EXPECT_EQ(kExpected,
              Line("0800 0000 00000001 0001 00 06 0200000000010000 " + kIpv4 + kTcp, kLinkCooked2));
    EXPECT_EQ("link type 147", Line(kIpv4 + kTcp, 147));
}

TEST(SummaryOf, ReadsUdpAndIcmp) {
    EXPECT_EQ(
        "10.0.0.1:53 -> 10.0.0.2:1025 UDP",
        Line("4500001c 00010000 4011 0000 0a000001 0a000002 0035 0401 0008 0000", kLinkRawIp));
    EXPECT_EQ("10.0.0.1:53 -> 10.0.0.2:1025 UDP",
              Line("45000024 00010000 4011 0000 0a000001 0a000002 0035 0401 0010 0000 "
                   "ffffffffffffffff",
                   kLinkRawIp))
        << "what it carries is no flags";
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 ICMP type 8 code 1",
              Line("4500001c 00010000 4001 0000 0a000001 0a000002 0801 0000", kLinkRawIp));
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 protocol 47",
              Line("45000018 00010000 402f 0000 0a000001 0a000002 00000800", kLinkRawIp));
}

TEST(SummaryOf, ReadsIpv6AndItsExtensions) {
    const std::string tcp = "04d2 0050 00000001 00000002 5010 ffff 0000 0000";
    const char* const expected = "[2001:db8::1]:1234 -> [2001:db8::2]:80 TCP ACK";
    EXPECT_EQ(expected, Line(kMacs + "86dd 60000000 0014 06 40 " + kIpv6Addresses + tcp));
    EXPECT_EQ(expected, Line("60000000 0024 00 40 " + kIpv6Addresses + "3c00010400000000 " +
                                 "2b00010400000000 " + "0601010400000000 0000000000000000 " + tcp,
                             kLinkRawIp));
    EXPECT_EQ(expected,
              Line("60000000 001c 2c 40 " + kIpv6Addresses + "0600000100000001 " + tcp, kLinkRawIp))
        << "the first fragment";
    EXPECT_EQ(
        "2001:db8::1 -> 2001:db8::2 TCP fragment",
        Line("60000000 001c 2c 40 " + kIpv6Addresses + "0600000900000001 " + tcp, kLinkRawIp));
    EXPECT_EQ("2001:db8::1 -> 2001:db8::2 ICMPv6 type 128 code 0",
              Line("60000000 0008 3a 40 " + kIpv6Addresses + "8000 0000 00000000", kLinkRawIp));
}

TEST(SummaryOf, KnowsAFragmentByItsOffset) {
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 TCP fragment",
              Line("45000028 00010001 4006 0000 0a000001 0a000002 " + kTcp, kLinkRawIp));
    EXPECT_EQ(kExpected, Line("45000028 00012000 4006 0000 0a000001 0a000002 " + kTcp, kLinkRawIp))
        << "the first one has the ports";
}

TEST(SummaryOf, SkipsTheOptionsOfAnIpv4Header) {
    EXPECT_EQ(kExpected,
              Line("4600002c 00010000 4006 0000 0a000001 0a000002 01010101 " + kTcp, kLinkRawIp));
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 TCP",
              Line("4400002c 00010000 4006 0000 0a000001 0a000002 " + kTcp, kLinkRawIp))
        << "a header that is too short has nothing after it";
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 TCP",
              Line("4f00003c 00010000 4006 0000 0a000001 0a000002 " + kTcp, kLinkRawIp))
        << "nor has one that is longer than the packet";
    EXPECT_EQ("10.0.0.1 -> 10.0.0.2 TCP", Line(kIpv4, kLinkRawIp)) << "the header alone";
}

TEST(SummaryOf, SaysWhatIsNoIp) {
    EXPECT_EQ("ARP", Line(kMacs + "0806 0001"));
    EXPECT_EQ("Ethernet type 35020", Line(kMacs + "88cc 0001"));
    EXPECT_EQ("no IP", Line("00", kLinkRawIp));
    EXPECT_EQ("no IP", Line("", kLinkRawIp));
    EXPECT_EQ("Ethernet type 2048", Line(kMacs + "0800 60000000")) << "another version";
    EXPECT_EQ("link type 1", Line("0200")) << "no whole header";
}

TEST(SummaryOf, ReadsNoFurtherThanThePacket) {
    const Bytes whole = Hex(kMacs + "0800 " + kIpv4 + kTcp);
    for (size_t size = 0; size <= whole.size(); ++size) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_NE("", SummaryOf(part, kLinkEthernet).line);
    }
    std::mt19937 random(3);
    for (int round = 0; round < 20'000; ++round) {
        Bytes bytes(random() % 90);
        for (std::byte& byte : bytes) {
            byte = static_cast<std::byte>(random() % 4 == 0 ? 0x45 : random());
        }
        if (bytes.size() > 15) {
            bytes[12] = std::byte{static_cast<uint8_t>(round % 2 == 0 ? 0x08 : 0x86)};
            bytes[13] = std::byte{static_cast<uint8_t>(round % 2 == 0 ? 0x00 : 0xDD)};
            bytes[14] = std::byte{static_cast<uint8_t>(round % 2 == 0 ? 0x45 : 0x60)};
        }
        for (const uint32_t linkType : {0U, 1U, 101U, 113U, 276U, 9U}) {
            EXPECT_NE("", SummaryOf(bytes, linkType).line);
        }
    }
}

TEST(EndpointName, HasBracketsWhereTheyAreNeeded) {
    EXPECT_EQ("10.0.0.1", EndpointName("10.0.0.1", std::nullopt));
    EXPECT_EQ("10.0.0.1:0", EndpointName("10.0.0.1", uint16_t{0}));
    EXPECT_EQ("[::1]:80", EndpointName("::1", uint16_t{80}));
    EXPECT_EQ("::1", EndpointName("::1", std::nullopt));
}

}  // namespace tarnctl
