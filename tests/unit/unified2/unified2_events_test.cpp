#include "unified2/unified2_events.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "crm/crm_event_message.h"
#include "crm/crm_event_source.h"
#include "support/unified2_records.h"
#include "unified2/unified2_format.h"
#include "unit/snort/log_questions.h"

namespace {

using u2test::Allocated;
using u2test::Bytes;

constexpr uint32_t kNoVlan = 0xFFFFFFFF;
constexpr const char* kLengthWarning = "Packet length doesn't match to the receive payload";

std::unique_ptr<U2AlertEvent> Made(const u2test::Alert& alert) {
    if (alert.Type() == 104) {
        return std::make_unique<U2AlertEventIpv4>(Allocated(alert.Payload()));
    }
    return std::make_unique<U2AlertEventIpv6>(Allocated(alert.Payload()));
}

std::unique_ptr<U2PacketEvent> Made(const u2test::Packet& packet) {
    const Bytes payload = packet.Payload();
    return std::make_unique<U2PacketEvent>(Allocated(payload),
                                           static_cast<uint32_t>(payload.size()));
}

std::unique_ptr<U2ExtraDataEvent> Made(const u2test::ExtraData& extra) {
    const Bytes payload = extra.Payload();
    return std::make_unique<U2ExtraDataEvent>(Allocated(payload),
                                              static_cast<uint32_t>(payload.size()));
}

std::unique_ptr<CrmEventSource> SourceOf(U2AlertEvent& event, bool withPacket = true) {
    return std::unique_ptr<CrmEventSource>(event.CreateCrmEventSource(withPacket));
}

std::unique_ptr<CrmEventSource> SourceOf(const u2test::Alert& alert) {
    return SourceOf(*Made(alert));
}

// The name-value pairs as the report carries them: the chunk behind the first one.
std::map<std::string, std::string> PairsOf(const CrmEventSource& source) {
    const CrmEventMessage message(source);
    std::string bytes;
    for (int i = 0; i < message.PieceCount(); ++i) {
        const iovec& piece = message.Pieces()[i];
        bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
    }
    uint32_t reportLength = 0;
    std::memcpy(&reportLength, bytes.data() + 4, sizeof(reportLength));
    const char* at = bytes.data() + reportLength;
    uint32_t chunkType = 0;
    std::memcpy(&chunkType, at, sizeof(chunkType));
    EXPECT_EQ(chunkType, 3U);
    std::map<std::string, std::string> pairs;
    for (at += 8; *at != '\0';) {
        const std::string key = at;
        at += key.size() + 1;
        pairs[key] = at;
        at += pairs[key].size() + 1;
    }
    return pairs;
}

// A packet that claims a length that its record does not have.
std::unique_ptr<U2PacketEvent> LyingPacket(uint32_t claimed) {
    u2test::Packet packet;
    packet.data = {1, 2, 3, 4};
    packet.claimedLength = claimed;
    return Made(packet);
}

class U2AlertEventTest : public testing::Test {
  protected:
    QuestionedLog m_log{3};
};

using U2PacketEventTest = U2AlertEventTest;
using U2ExtraDataEventTest = U2AlertEventTest;

// One record of every type, byte by byte, every field with a value of its own.
constexpr std::array<uint8_t, 60> kIpv4Golden = {
    0x00, 0x00, 0x00, 0x07, 0x00, 0x01, 0x00, 0x02, 0x65, 0x53, 0xF1, 0x00, 0x00, 0x01, 0xE2,
    0x40, 0x00, 0x0F, 0x42, 0x41, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00,
    0x00, 0x1E, 0x00, 0x00, 0x00, 0x02, 0x0A, 0x01, 0x02, 0x03, 0xC0, 0xA8, 0x00, 0x01, 0x9C,
    0x40, 0x00, 0x50, 0x06, 0x20, 0x09, 0x01, 0x12, 0x34, 0x56, 0x78, 0x00, 0xC8, 0x00, 0x2A};

template <size_t kSize>
void* Allocated(const std::array<uint8_t, kSize>& bytes) {
    return Allocated(Bytes(bytes.begin(), bytes.end()));
}

TEST(Unified2Format, ReadsEveryFieldOfAnIpv4AlertFromItsBytes) {
    const auto record = unified2::Load<unified2::AlertIpv4>(kIpv4Golden.data());
    EXPECT_EQ(record.sensorId.HostOrder(), 7U);
    EXPECT_EQ(record.eventId.HostOrder(), 0x00010002U);
    EXPECT_EQ(record.eventSecond.HostOrder(), 1700000000U);
    EXPECT_EQ(record.eventMicrosecond.HostOrder(), 123456U);
    EXPECT_EQ(record.signatureId.HostOrder(), 1000001U);
    EXPECT_EQ(record.generatorId.HostOrder(), 3U);
    EXPECT_EQ(record.signatureRevision.HostOrder(), 5U);
    EXPECT_EQ(record.classificationId.HostOrder(), 30U);
    EXPECT_EQ(record.priorityId.HostOrder(), 2U);
    EXPECT_EQ(record.ipSource, (std::array<uint8_t, 4>{10, 1, 2, 3}));
    EXPECT_EQ(record.ipDestination, (std::array<uint8_t, 4>{192, 168, 0, 1}));
    EXPECT_EQ(record.sportItype.HostOrder(), 40000U);
    EXPECT_EQ(record.dportIcode.HostOrder(), 80U);
    EXPECT_EQ(record.ipProtocol, 6U);
    EXPECT_EQ(record.impactFlag, 0x20U);
    EXPECT_EQ(record.impact, 9U);
    EXPECT_EQ(record.blocked, 1U);
    EXPECT_EQ(record.mplsLabel.HostOrder(), 0x12345678U);
    EXPECT_EQ(record.vlanId.HostOrder(), 200U);
    EXPECT_EQ(record.policyId.HostOrder(), 42U);
}

TEST(Unified2Format, GivesBackTheNumberThatWasPutIn) {
    EXPECT_EQ(unified2::Big16::FromHostOrder(0x1234).HostOrder(), 0x1234U);
    EXPECT_EQ(unified2::Big32::FromHostOrder(0x12345678).HostOrder(), 0x12345678U);
    std::array<uint8_t, 4> bytes{};
    const auto field = unified2::Big32::FromHostOrder(0x12345678);
    std::memcpy(bytes.data(), &field, sizeof(field));
    EXPECT_EQ(bytes, (std::array<uint8_t, 4>{0x12, 0x34, 0x56, 0x78}));
}

TEST(Unified2Format, KnowsTheFixedSizeOfTheFourTypesOnly) {
    EXPECT_EQ(unified2::FixedSize(2), 28U);
    EXPECT_EQ(unified2::FixedSize(104), 60U);
    EXPECT_EQ(unified2::FixedSize(105), 84U);
    EXPECT_EQ(unified2::FixedSize(110), 32U);
    EXPECT_EQ(unified2::FixedSize(7), 0U);
    EXPECT_EQ(unified2::FixedSize(72), 0U);
}

TEST_F(U2AlertEventTest, MakesTheReportOfAGoldenIpv4Record) {
    U2AlertEventIpv4 event(Allocated(kIpv4Golden));
    EXPECT_EQ(event.m_eventId, 0x00010002U);
    EXPECT_EQ(event.m_signatureId, 1000001U);
    const auto source = SourceOf(event);
    const EventReport& report = source->GetReport();
    EXPECT_EQ(source->GetIssueId(), 1000001U);
    EXPECT_EQ(source->GetStartTime(), 1700000000U);
    EXPECT_EQ(source->GetIpVersion(), 4);
    EXPECT_EQ(source->GetProtocol(), 6);
    EXPECT_EQ(report.intruderIp, 0x0A010203U);
    EXPECT_EQ(report.victimIp, 0xC0A80001U);
    EXPECT_EQ(source->GetIntruderPort(), 40000);
    EXPECT_EQ(source->GetVictimPort(), 80);
    EXPECT_EQ(source->GetVlanId(), 200U);
}

TEST_F(U2AlertEventTest, MakesTheReportOfAnIpv6Record) {
    u2test::Alert alert = u2test::AlertIpv6();
    alert.eventId = 77;
    alert.protocol = 17;
    alert.vlanId = 10;
    const auto event = Made(alert);
    EXPECT_EQ(event->m_eventId, 77U);
    EXPECT_EQ(event->m_signatureId, 1000001U);
    const auto source = SourceOf(*event);
    EXPECT_EQ(source->GetIpVersion(), 6);
    EXPECT_EQ(source->GetProtocol(), 17);
    std::string intruder;
    std::string victim;
    EXPECT_EQ(source->GetIntruderAddressText(intruder), 0);
    EXPECT_EQ(source->GetVictimAddressText(victim), 0);
    EXPECT_EQ(intruder, "2001:db8::1");
    EXPECT_EQ(victim, "2001:db8::2");
    EXPECT_EQ(source->GetIntruderPort(), 40000);
    EXPECT_EQ(source->GetVictimPort(), 80);
    EXPECT_EQ(source->GetVlanId(), 10U);
}

TEST_F(U2AlertEventTest, TcpAlertWithVlanZeroSetsPortsAndNoVlan) {
    const auto source = SourceOf(u2test::Alert{});
    EXPECT_EQ(source->GetIntruderPort(), 40000);
    EXPECT_EQ(source->GetVictimPort(), 80);
    EXPECT_EQ(source->GetVlanId(), kNoVlan);
}

TEST_F(U2AlertEventTest, IcmpAlertSetsTypeAndCodeAndNoPorts) {
    u2test::Alert alert;
    alert.protocol = 1;
    alert.sportItype = 8;
    alert.dportIcode = 0;
    const auto source = SourceOf(alert);
    EXPECT_EQ(source->GetIcmpType(), 8);
    EXPECT_EQ(source->GetIcmpCode(), 0);
    EXPECT_EQ(source->GetIntruderPort(), 0);
    EXPECT_EQ(source->GetVictimPort(), 0);
}

TEST_F(U2AlertEventTest, IcmpTypeAndCodeAreCutToTheirLowEightBits) {
    u2test::Alert alert = u2test::AlertIpv6();
    alert.protocol = 58;
    alert.sportItype = 0x0180;
    alert.dportIcode = 0xFF04;
    const auto source = SourceOf(alert);
    EXPECT_EQ(source->GetIcmpType(), 0x80);
    EXPECT_EQ(source->GetIcmpCode(), 0x04);
}

TEST_F(U2AlertEventTest, KeepsTheOtherFamilysIcmpOutOfAReport) {
    u2test::Alert ipv4;
    ipv4.protocol = 58;
    u2test::Alert ipv6 = u2test::AlertIpv6();
    ipv6.protocol = 1;
    for (const auto& source : {SourceOf(ipv4), SourceOf(ipv6)}) {
        EXPECT_EQ(source->GetIcmpType(), 0);
        EXPECT_EQ(source->GetIcmpCode(), 0);
        EXPECT_EQ(source->GetIntruderPort(), 0);
        EXPECT_EQ(source->GetVictimPort(), 0);
    }
}

TEST_F(U2AlertEventTest, OtherProtocolsSetNeitherPortsNorIcmp) {
    u2test::Alert alert;
    alert.protocol = 47;
    const auto source = SourceOf(alert);
    EXPECT_EQ(source->GetProtocol(), 47);
    EXPECT_EQ(source->GetIntruderPort(), 0);
    EXPECT_EQ(source->GetIcmpType(), 0);
}

TEST_F(U2AlertEventTest, AlertWithoutAttachmentsGivesNeitherPacketNorAttribute) {
    const auto source = SourceOf(u2test::Alert{});
    EXPECT_EQ(source->GetPacket().pData, nullptr);
    EXPECT_EQ(source->GetPacket().iCapturedSize, 0);
    EXPECT_TRUE(PairsOf(*source).empty());
}

TEST_F(U2AlertEventTest, AttachmentsGoIntoTheReport) {
    const auto event = Made(u2test::Alert{});
    auto packet = Made(u2test::Packet{});
    const uint8_t* data = packet->data;
    EXPECT_TRUE(event->SetPacket(packet.release()));
    EXPECT_TRUE(event->SetExtraData(Made(u2test::ExtraData{.type = 9, .data = "/a?b"}).release()));
    EXPECT_TRUE(event->SetExtraData(Made(u2test::ExtraData{.type = 10, .data = "host"}).release()));

    const auto source = SourceOf(*event);
    EXPECT_EQ(source->GetPacket().pData, data);
    EXPECT_EQ(source->GetPacket().uPacketLength, 4U);
    EXPECT_EQ(source->GetPacket().iCapturedSize, 4);
    EXPECT_EQ(source->GetPacket().uSeconds, 1700000001U);
    EXPECT_EQ(source->GetPacket().uMicroseconds, 999U);
    const std::map<std::string, std::string> expected = {{"URL", "/a?b"}, {"server", "host"}};
    EXPECT_EQ(PairsOf(*source), expected);
}

TEST_F(U2AlertEventTest, WithoutThePacketTheAttributesStillGoIn) {
    const auto event = Made(u2test::Alert{});
    event->SetPacket(Made(u2test::Packet{}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 10, .data = "host"}).release());
    const auto source = SourceOf(*event, false);
    EXPECT_EQ(source->GetPacket().pData, nullptr);
    EXPECT_EQ(source->GetPacket().uSeconds, 0U);
    EXPECT_EQ(PairsOf(*source).size(), 2U);
}

TEST_F(U2AlertEventTest, LaterAttachmentTakesThePlaceOfTheEarlier) {
    const auto event = Made(u2test::Alert{});
    event->SetPacket(Made(u2test::Packet{.data = {1}}).release());
    event->SetPacket(Made(u2test::Packet{.data = {1, 2}}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9, .data = "/first"}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9, .data = "/second"}).release());
    const auto source = SourceOf(*event);
    EXPECT_EQ(source->GetPacket().iCapturedSize, 2);
    EXPECT_EQ(PairsOf(*source).at("URL"), "/second");
}

TEST_F(U2AlertEventTest, RefusesExtraDataOfAnotherTypeAndLeavesItToTheCaller) {
    const auto event = Made(u2test::Alert{});
    const auto extra = Made(u2test::ExtraData{.type = 11, .data = "kept"});
    EXPECT_FALSE(event->SetExtraData(extra.get()));
    EXPECT_EQ(m_log.CountAt(3, "Unsupported ExtraData type receive from Snort"), 1);
    EXPECT_EQ(extra->text, "kept");
    EXPECT_TRUE(PairsOf(*SourceOf(*event)).empty());
}

TEST_F(U2AlertEventTest, ExtraDataIsTakenWhateverItsDataType) {
    const auto event = Made(u2test::Alert{});
    EXPECT_TRUE(event->SetExtraData(
        Made(u2test::ExtraData{.type = 9, .dataType = 4711, .data = "/any"}).release()));
    EXPECT_EQ(PairsOf(*SourceOf(*event)).at("URL"), "/any");
}

TEST_F(U2PacketEventTest, CopiesItsFieldsAndPointsAtItsBytes) {
    const auto packet = Made(u2test::Packet{.eventId = 0x00010002, .data = {9, 8, 7}});
    EXPECT_EQ(packet->eventId, 0x00010002U);
    EXPECT_EQ(packet->length, 3U);
    EXPECT_EQ(packet->second, 1700000001U);
    EXPECT_EQ(packet->microsecond, 999U);
    EXPECT_EQ(packet->data, packet->raw.get() + 28);
    EXPECT_EQ(Bytes(packet->data, packet->data + packet->length), (Bytes{9, 8, 7}));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(U2PacketEventTest, KeepsAShorterLengthThanTheRecordHolds) {
    const auto packet = LyingPacket(3);
    EXPECT_EQ(packet->length, 3U);
    EXPECT_EQ(m_log.CountAt(2, kLengthWarning), 1);
}

TEST_F(U2PacketEventTest, KeepsALongerLengthThanTheRecordHoldsAndReadsZerosBeyond) {
    const auto packet = LyingPacket(9);
    ASSERT_EQ(packet->length, 9U);
    EXPECT_EQ(Bytes(packet->data, packet->data + 9), (Bytes{1, 2, 3, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(m_log.CountAt(2, kLengthWarning), 1);
}

TEST_F(U2PacketEventTest, BelievesAnOverrunUpToTheLimitOnly) {
    const auto believed = LyingPacket(4 + unified2::kMaxOverrun);
    ASSERT_EQ(believed->length, 4 + unified2::kMaxOverrun);
    EXPECT_EQ(believed->data[4 + unified2::kMaxOverrun - 1], 0);
    EXPECT_EQ(LyingPacket(4 + unified2::kMaxOverrun + 1)->length, 4U);
    const auto absurd = LyingPacket(std::numeric_limits<uint32_t>::max());
    ASSERT_EQ(absurd->length, 4U);
    EXPECT_EQ(Bytes(absurd->data, absurd->data + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(m_log.CountAt(2, kLengthWarning), 3);
}

TEST_F(U2PacketEventTest, RecordWithoutBytesIsAPacketOfZeros) {
    const U2PacketEvent packet(Allocated(Bytes{}, 28), 0);
    EXPECT_EQ(packet.eventId, 0U);
    EXPECT_EQ(packet.length, 0U);
    EXPECT_EQ(m_log.CountAt(2, kLengthWarning), 1);
}

TEST_F(U2PacketEventTest, RecordCutBehindItsLengthHoldsNoBytes) {
    u2test::Packet packet;
    packet.data = {};
    packet.claimedLength = 2;
    const U2PacketEvent event(Allocated(packet.Payload()), 27);
    ASSERT_EQ(event.length, 2U);
    EXPECT_EQ(Bytes(event.data, event.data + 2), (Bytes{0, 0}));
}

TEST_F(U2ExtraDataEventTest, CopiesItsFieldsAndItsTextWithZeroBytes) {
    const std::string text("a\0b", 3);
    const auto extra = Made(u2test::ExtraData{.eventId = 5, .type = 10, .data = text});
    EXPECT_EQ(extra->eventId, 5U);
    EXPECT_EQ(extra->type, 10U);
    EXPECT_EQ(extra->text, text);
}

TEST_F(U2ExtraDataEventTest, TakesTheBlobAtItsWordWhenNoRecordLengthIsGiven) {
    const U2ExtraDataEvent extra(Allocated(u2test::ExtraData{.data = "/whole"}.Payload()));
    EXPECT_EQ(extra.text, "/whole");
}

TEST_F(U2ExtraDataEventTest, BlobOfEightIsAnEmptyText) {
    EXPECT_EQ(Made(u2test::ExtraData{.data = ""})->text, "");
}

TEST_F(U2ExtraDataEventTest, KeepsThrowingOnABlobLengthBelowEight) {
    for (const int64_t length : {0, 1, 7}) {
        u2test::ExtraData extra;
        extra.claimedLength = length;
        EXPECT_THROW(Made(extra), std::length_error) << length;
    }
}

TEST_F(U2ExtraDataEventTest, TextBeyondTheRecordIsZeros) {
    const auto extra = Made(u2test::ExtraData{.data = "ab", .claimedLength = 8 + 5});
    EXPECT_EQ(extra->text, std::string("ab\0\0\0", 5));
}

TEST_F(U2ExtraDataEventTest, BelievesAnOverrunUpToTheLimitOnly) {
    const int64_t limit = 8 + 2 + int64_t{unified2::kMaxOverrun};
    EXPECT_EQ(Made(u2test::ExtraData{.data = "ab", .claimedLength = limit})->text.size(),
              2 + unified2::kMaxOverrun);
    EXPECT_EQ(Made(u2test::ExtraData{.data = "ab", .claimedLength = limit + 1})->text, "ab");
    EXPECT_EQ(Made(u2test::ExtraData{.data = "ab", .claimedLength = 0xFFFFFFFF})->text, "ab");
}

}  // namespace
