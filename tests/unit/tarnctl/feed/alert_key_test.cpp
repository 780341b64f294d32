#include "tarnctl/feed/alert_key.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "support/unified2_records.h"

namespace tarnctl {
namespace {

std::span<const std::byte> AsBytes(const u2test::Bytes& bytes) {
    return std::as_bytes(std::span(bytes));
}

AlertRead Read(const u2test::Alert& alert) {
    return ReadAlert(alert.Type(), AsBytes(u2test::Framed(alert)));
}

TEST(AlertKey, IsWhatTheReportSaysOfTheAlert) {
    const AlertRead read = Read({.eventId = 5,
                                 .eventSecond = 1700000009,
                                 .signatureId = 77,
                                 .source = {10, 1, 2, 3},
                                 .destination = {10, 1, 2, 4},
                                 .sportItype = 1234,
                                 .dportIcode = 80,
                                 .protocol = 17,
                                 .vlanId = 6});
    AlertKey key;
    key.second = 1700000009;
    key.signature = 77;
    key.vlan = 6;
    key.source = 0x0A010203;
    key.destination = 0x0A010204;
    key.sourcePort = 1234;
    key.destinationPort = 80;
    key.etherType = 0x0800;
    key.protocol = 17;
    EXPECT_EQ(5U, read.eventId);
    EXPECT_EQ(key, read.key);
}

TEST(AlertKey, TellsAlertsApartByEachFieldOfTheirReports) {
    const AlertKey plain = Read({}).key;
    u2test::Alert ipv6 = u2test::AlertIpv6();
    const AlertKey plainIpv6 = Read(ipv6).key;
    ipv6.source[15] = 9;
    u2test::Alert otherIpv6 = u2test::AlertIpv6();
    otherIpv6.destination[0] = 9;
    EXPECT_NE(plainIpv6, Read(ipv6).key);
    EXPECT_NE(plainIpv6, Read(otherIpv6).key);
    EXPECT_NE(plain, plainIpv6);
    for (const u2test::Alert& other :
         {u2test::Alert{.eventSecond = 1}, u2test::Alert{.signatureId = 1},
          u2test::Alert{.source = {1, 1, 1, 1}}, u2test::Alert{.destination = {1, 1, 1, 1}},
          u2test::Alert{.sportItype = 1}, u2test::Alert{.dportIcode = 1},
          u2test::Alert{.protocol = 17}, u2test::Alert{.vlanId = 1}}) {
        EXPECT_NE(plain, Read(other).key);
    }
    const u2test::Alert icmp{.sportItype = 8, .dportIcode = 0, .protocol = 1};
    const u2test::Alert otherType{.sportItype = 3, .dportIcode = 0, .protocol = 1};
    const u2test::Alert otherCode{.sportItype = 8, .dportIcode = 1, .protocol = 1};
    EXPECT_NE(Read(icmp).key, Read(otherType).key);
    EXPECT_NE(Read(icmp).key, Read(otherCode).key);
    EXPECT_EQ(plain, Read({.eventId = 9, .eventMicrosecond = 4, .priorityId = 3}).key);
}

TEST(AlertKey, AShortAlertReadsAsZeros) {
    u2test::Bytes payload = u2test::Alert{.eventId = 3, .eventSecond = 4}.Payload();
    payload.resize(12);
    const AlertRead read = ReadAlert(105, AsBytes(u2test::Framed(105, payload)));
    EXPECT_EQ(3U, read.eventId);
    EXPECT_EQ(4U, read.key.second);
    EXPECT_EQ(0U, read.key.signature);
    EXPECT_EQ(0U, ReadAlert(104, AsBytes(u2test::Framed(104, {}))).eventId);
}

TEST(AlertKey, HashesSpreadAlerts) {
    std::unordered_set<size_t> hashes;
    constexpr uint32_t kAlerts = 1000;
    for (uint32_t number = 0; number < kAlerts; ++number) {
        hashes.insert(AlertKeyHash()(Read({.eventSecond = number}).key));
        hashes.insert(AlertKeyHash()(Read({.sportItype = number}).key));
    }
    EXPECT_EQ(2 * kAlerts, hashes.size());
}

TEST(Attachment, KnowsItsAlertAndWhatItAddsToAReport) {
    const u2test::Bytes packet =
        u2test::Framed(u2test::Packet{.eventId = 8, .claimedLength = 0xFFFFFFFF});
    EXPECT_EQ(8U, AttachmentEventId(2, AsBytes(packet)));
    EXPECT_EQ(uint64_t{48} + 0xFFFFFFFF, AttachmentReportBytes(2, AsBytes(packet)));
    const u2test::Bytes extra = u2test::Framed(u2test::ExtraData{.eventId = 9, .data = "abcd"});
    EXPECT_EQ(9U, AttachmentEventId(110, AsBytes(extra)));
    EXPECT_EQ(12U, AttachmentReportBytes(110, AsBytes(extra)));
}

TEST(Attachment, OnlyExtraDataShorterThanItsFieldsEndsTheDaemon) {
    const auto ends = [](int64_t claimed) {
        return EndsTheDaemon(110,
                             AsBytes(u2test::Framed(u2test::ExtraData{.claimedLength = claimed})));
    };
    EXPECT_TRUE(ends(0));
    EXPECT_TRUE(ends(7));
    EXPECT_FALSE(ends(8));
    EXPECT_TRUE(EndsTheDaemon(110, AsBytes(u2test::Framed(110, {}))));
    EXPECT_FALSE(EndsTheDaemon(2, AsBytes(u2test::Framed(2, {}))));
}

}  // namespace
}  // namespace tarnctl
