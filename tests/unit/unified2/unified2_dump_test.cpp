#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/unified2_records.h"
#include "unified2/unified2_events.h"
#include "unit/snort/log_questions.h"

namespace {

using u2test::Allocated;
using u2test::Bytes;
using Lines = std::vector<std::string>;

U2PacketEvent* NewPacket(const u2test::Packet& packet) {
    const Bytes payload = packet.Payload();
    return new U2PacketEvent(Allocated(payload), static_cast<uint32_t>(payload.size()));
}

U2ExtraDataEvent* NewExtraData(const u2test::ExtraData& extra) {
    const Bytes payload = extra.Payload();
    return new U2ExtraDataEvent(Allocated(payload), static_cast<uint32_t>(payload.size()));
}

// An alert with a value of its own in every field.
u2test::Alert FullAlert(u2test::Alert alert) {
    alert.sensorId = 7;
    alert.eventId = 4711;
    alert.eventSecond = 1700000000;
    alert.eventMicrosecond = 123456;
    alert.signatureId = 1000001;
    alert.generatorId = 3;
    alert.signatureRevision = 5;
    alert.classificationId = 30;
    alert.priorityId = 2;
    alert.protocol = 17;
    alert.impactFlag = 32;
    alert.impact = 99;
    alert.blocked = 1;
    alert.mplsLabel = 0x12345678;
    alert.vlanId = 200;
    alert.policyId = 42;
    return alert;
}

// The bytes 'A', 'B', ... after one that cannot be printed.
Bytes PacketBytes(size_t count) {
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) {
        bytes.push_back(i == 0 ? uint8_t{0x0A} : static_cast<uint8_t>('A' + i - 1));
    }
    return bytes;
}

Lines Dumped(const u2test::Packet& packet, int level = 5) {
    const QuestionedLog log(level);
    std::unique_ptr<U2PacketEvent>(NewPacket(packet))->Dump();
    return log.Lines();
}

// What the log shows of a packet's bytes alone.
Lines DumpedBytes(const u2test::Packet& packet) {
    const Lines lines = Dumped(packet);
    const auto title = std::find(lines.begin(), lines.end(), "---- Packet Dump ----");
    EXPECT_NE(lines.end(), title);
    return {title + 1, lines.end()};
}

Lines DumpedBytes(const Bytes& bytes) {
    return DumpedBytes(u2test::Packet{.data = bytes});
}

TEST(Unified2Dump, WritesAnIpv4AlertFieldByField) {
    const QuestionedLog log;
    U2AlertEventIpv4 event(Allocated(FullAlert(u2test::Alert{}).Payload()));
    event.Dump();
    const Lines expected = {
        "Type: Event 4711 -------------------------------------------",
        "  sensor_id          = 7",
        "  event_id           = 4711",
        "  event_second       = 1700000000",
        "  event_microsecond  = 123456",
        "  generator_id       = 3",
        "  signature_id       = 1000001",
        "  signature_revision = 5",
        "  classification_id  = 30",
        "  priority_id        = 2",
        "  ip_source          = 10.1.2.3",
        "  sport_itype        = 40000",
        "  ip_destination     = 192.168.0.1",
        "  dport_icode        = 80",
        "  ip_protocol        = 17",
        "  impact             = 32",
        "  blocked            = 1",
        "  mpls_label         = 4660",
        "  vlanId             = 200",
        "  policy id          = 42",
    };
    EXPECT_EQ(expected, log.Lines());
}

TEST(Unified2Dump, WritesAnIpv6AlertFieldByField) {
    const QuestionedLog log;
    U2AlertEventIpv6 event(Allocated(FullAlert(u2test::AlertIpv6()).Payload()));
    event.Dump();
    const Lines lines = log.Lines();
    ASSERT_EQ(20U, lines.size());
    EXPECT_EQ("Type: Event 4711 -------------------------------------------", lines[0]);
    EXPECT_EQ("  ip_source          = 2001:db8::1", lines[10]);
    EXPECT_EQ("  sport_itype        = 40000", lines[11]);
    EXPECT_EQ("  ip_destination     = 2001:db8::2", lines[12]);
    EXPECT_EQ("  dport_icode        = 80", lines[13]);
    EXPECT_EQ("  ip_protocol        = 17", lines[14]);
    EXPECT_EQ("  impact             = 32", lines[15]);
    EXPECT_EQ("  blocked            = 1", lines[16]);
    EXPECT_EQ("  vlanId             = 200", lines[18]);
    EXPECT_EQ("  policy id          = 42", lines[19]);
}

TEST(Unified2Dump, KeepsTheLowHalfOfTheMplsLabelOut) {
    u2test::Alert alert;
    alert.mplsLabel = 0x0001FFFF;
    const QuestionedLog log;
    U2AlertEventIpv4 event(Allocated(alert.Payload()));
    event.Dump();
    EXPECT_EQ("  mpls_label         = 1", log.Lines().at(17));
}

TEST(Unified2Dump, KeepsTheGeneratorAheadOfTheSignature) {
    const QuestionedLog log;
    U2AlertEventIpv4 event(Allocated(u2test::Alert{}.Payload()));
    event.Dump();
    EXPECT_EQ("  generator_id       = 1", log.Lines().at(5));
    EXPECT_EQ("  signature_id       = 1000001", log.Lines().at(6));
}

TEST(Unified2Dump, WritesPacketHostnameAndUriBehindTheAlertInThatOrder) {
    const QuestionedLog log;
    U2AlertEventIpv4 event(Allocated(u2test::Alert{}.Payload()));
    event.SetExtraData(NewExtraData(u2test::ExtraData{.type = 9, .data = "/uri"}));
    event.SetExtraData(NewExtraData(u2test::ExtraData{.type = 10, .data = "host"}));
    event.SetPacket(NewPacket(u2test::Packet{}));
    event.Dump();
    Lines titles;
    for (const std::string& line : log.Lines()) {
        if (line.starts_with("Type: ") || line.starts_with("  Data ")) {
            titles.push_back(line);
        }
    }
    const Lines expected = {
        "Type: Event 1 -------------------------------------------",
        "Type: Packet 1 -------------------------------------------",
        "Type: Extra Data 1 -------------------------------------------",
        "  Data                = host",
        "Type: Extra Data 1 -------------------------------------------",
        "  Data                = /uri",
    };
    EXPECT_EQ(expected, titles);
}

TEST(Unified2Dump, WritesAPacketFieldByField) {
    const Lines expected = {
        "Type: Packet 12 -------------------------------------------",
        "  sensor_id           = 7",
        "  event_id            = 12",
        "  event_second        = 1700000000",
        "  packet_second       = 1700000001",
        "  packet_microsecond  = 999",
        "  linktype            = 1",
        "  packet_length       = 4",
        "---- Packet Dump ----",
        "    0: DE AD BE EF                                      ....",
    };
    EXPECT_EQ(expected, Dumped(u2test::Packet{.sensorId = 7, .eventId = 12}));
}

TEST(Unified2Dump, TwentyBytesAreAFullLineAndALineOfFour) {
    const Lines expected = {
        "    0: 0A 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F  .ABCDEFGHIJKLMNO",
        "   16: 50 51 52 53                                      PQRS",
    };
    EXPECT_EQ(expected, DumpedBytes(PacketBytes(20)));
}

TEST(Unified2Dump, SixteenBytesAreOneLine) {
    const Lines expected = {
        "    0: 0A 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F  .ABCDEFGHIJKLMNO",
    };
    EXPECT_EQ(expected, DumpedBytes(PacketBytes(16)));
}

TEST(Unified2Dump, PacketWithoutBytesEndsWithTheTitleOfItsBytes) {
    const Lines lines = Dumped(u2test::Packet{.data = {}});
    ASSERT_EQ(9U, lines.size());
    EXPECT_EQ("---- Packet Dump ----", lines.back());
}

TEST(Unified2Dump, ShowsTheLengthThatThePacketClaims) {
    const Lines lines = Dumped(u2test::Packet{.data = {0x41}, .claimedLength = 3});
    EXPECT_EQ("  packet_length       = 3", lines.at(8));  // after the warning
    EXPECT_EQ("    0: 41 00 00                                         A..", lines.back());
}

TEST(Unified2Dump, ZerosAfterTheRecordsEndFillWholeLinesToo) {
    u2test::Packet packet{.data = Bytes(17, 0x41), .claimedLength = 33};
    const Lines expected = {
        "    0: 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41  AAAAAAAAAAAAAAAA",
        "   16: 41 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  A...............",
        "   32: 00                                               .",
    };
    EXPECT_EQ(expected, DumpedBytes(packet));
}

TEST(Unified2Dump, KeepsToAMebibyteOfZerosForALargerClaim) {
    u2test::Packet packet{.data = {0x41}, .claimedLength = 1 + 0x100000};
    const Lines whole = DumpedBytes(packet);
    EXPECT_EQ(0x10000U + 1, whole.size());
    EXPECT_EQ("1048576: 00                                               .", whole.back());
    packet.claimedLength = 0xFFFFFFFF;
    EXPECT_EQ(whole, DumpedBytes(packet));
}

TEST(Unified2Dump, WritesExtraDataFieldByField) {
    const QuestionedLog log;
    std::unique_ptr<U2ExtraDataEvent>(
        NewExtraData(u2test::ExtraData{.sensorId = 7, .eventId = 12, .type = 10, .dataType = 1}))
        ->Dump();
    const Lines expected = {
        "Type: Extra Data 12 -------------------------------------------",
        "  sensor_id           = 7",
        "  event_id            = 12",
        "  event_second        = 1700000000",
        "  type                = 10",
        "  data_type           = 1",
        "  blob_length         = 19",
        "  Data                = /index.html",
    };
    EXPECT_EQ(expected, log.Lines());
}

TEST(Unified2Dump, WritesNothingBelowTheDebugLevel) {
    EXPECT_TRUE(Dumped(u2test::Packet{}, 4).empty());
    const QuestionedLog log(4);
    U2AlertEventIpv4 ipv4(Allocated(u2test::Alert{}.Payload()));
    ipv4.SetExtraData(NewExtraData(u2test::ExtraData{}));
    ipv4.Dump();
    U2AlertEventIpv6 ipv6(Allocated(u2test::AlertIpv6().Payload()));
    ipv6.Dump();
    std::unique_ptr<U2ExtraDataEvent>(NewExtraData(u2test::ExtraData{}))->Dump();
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
