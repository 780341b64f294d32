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

// The report as it goes out.
std::string BytesOf(const CrmEventSource& source) {
    const CrmEventMessage message(source);
    std::string bytes;
    for (int i = 0; i < message.PieceCount(); ++i) {
        const iovec& piece = message.Pieces()[i];
        bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
    }
    return bytes;
}

// The name-value pairs as the report carries them: the chunk after the first one.
std::map<std::string, std::string> PairsOf(const CrmEventSource& source) {
    const std::string bytes = BytesOf(source);
    uint32_t reportLength = 0;
    std::memcpy(&reportLength, bytes.data() + 4, sizeof(reportLength));
    const char* at = bytes.data() + reportLength;
    uint32_t chunkType = 0;
    std::memcpy(&chunkType, at, sizeof(chunkType));
    EXPECT_EQ(3U, chunkType);
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
    EXPECT_EQ(7U, record.sensorId.HostOrder());
    EXPECT_EQ(0x00010002U, record.eventId.HostOrder());
    EXPECT_EQ(1700000000U, record.eventSecond.HostOrder());
    EXPECT_EQ(123456U, record.eventMicrosecond.HostOrder());
    EXPECT_EQ(1000001U, record.signatureId.HostOrder());
    EXPECT_EQ(3U, record.generatorId.HostOrder());
    EXPECT_EQ(5U, record.signatureRevision.HostOrder());
    EXPECT_EQ(30U, record.classificationId.HostOrder());
    EXPECT_EQ(2U, record.priorityId.HostOrder());
    EXPECT_EQ((std::array<uint8_t, 4>{10, 1, 2, 3}), record.ipSource);
    EXPECT_EQ((std::array<uint8_t, 4>{192, 168, 0, 1}), record.ipDestination);
    EXPECT_EQ(40000U, record.sportItype.HostOrder());
    EXPECT_EQ(80U, record.dportIcode.HostOrder());
    EXPECT_EQ(6U, record.ipProtocol);
    EXPECT_EQ(0x20U, record.impactFlag);
    EXPECT_EQ(9U, record.impact);
    EXPECT_EQ(1U, record.blocked);
    EXPECT_EQ(0x12345678U, record.mplsLabel.HostOrder());
    EXPECT_EQ(200U, record.vlanId.HostOrder());
    EXPECT_EQ(42U, record.policyId.HostOrder());
}

TEST(Unified2Format, GivesBackTheNumberThatWasPutIn) {
    EXPECT_EQ(0x1234U, unified2::Big16::FromHostOrder(0x1234).HostOrder());
    EXPECT_EQ(0x12345678U, unified2::Big32::FromHostOrder(0x12345678).HostOrder());
    std::array<uint8_t, 4> bytes{};
    const auto field = unified2::Big32::FromHostOrder(0x12345678);
    std::memcpy(bytes.data(), &field, sizeof(field));
    EXPECT_EQ((std::array<uint8_t, 4>{0x12, 0x34, 0x56, 0x78}), bytes);
}

TEST(Unified2Format, KnowsTheFixedSizeOfTheFourTypesOnly) {
    EXPECT_EQ(28U, unified2::FixedSize(2));
    EXPECT_EQ(60U, unified2::FixedSize(104));
    EXPECT_EQ(84U, unified2::FixedSize(105));
    EXPECT_EQ(32U, unified2::FixedSize(110));
    EXPECT_EQ(0U, unified2::FixedSize(7));
    EXPECT_EQ(0U, unified2::FixedSize(72));
}

TEST_F(U2AlertEventTest, MakesTheReportOfAGoldenIpv4Record) {
    U2AlertEventIpv4 event(Allocated(kIpv4Golden));
    EXPECT_EQ(0x00010002U, event.m_eventId);
    EXPECT_EQ(1000001U, event.m_signatureId);
    const auto source = SourceOf(event);
    const EventReport& report = source->GetReport();
    EXPECT_EQ(1000001U, source->GetIssueId());
    EXPECT_EQ(1700000000U, source->GetStartTime());
    EXPECT_EQ(4, source->GetIpVersion());
    EXPECT_EQ(6, source->GetProtocol());
    EXPECT_EQ(0x0A010203U, report.intruderIp);
    EXPECT_EQ(0xC0A80001U, report.victimIp);
    EXPECT_EQ(40000, source->GetIntruderPort());
    EXPECT_EQ(80, source->GetVictimPort());
    EXPECT_EQ(200U, source->GetVlanId());
}

TEST_F(U2AlertEventTest, MakesTheReportOfAnIpv6Record) {
    u2test::Alert alert = u2test::AlertIpv6();
    alert.eventId = 77;
    alert.protocol = 17;
    alert.vlanId = 10;
    const auto event = Made(alert);
    EXPECT_EQ(77U, event->m_eventId);
    EXPECT_EQ(1000001U, event->m_signatureId);
    const auto source = SourceOf(*event);
    EXPECT_EQ(6, source->GetIpVersion());
    EXPECT_EQ(17, source->GetProtocol());
    std::string intruder;
    std::string victim;
    EXPECT_EQ(0, source->GetIntruderAddressText(intruder));
    EXPECT_EQ(0, source->GetVictimAddressText(victim));
    EXPECT_EQ("2001:db8::1", intruder);
    EXPECT_EQ("2001:db8::2", victim);
    EXPECT_EQ(40000, source->GetIntruderPort());
    EXPECT_EQ(80, source->GetVictimPort());
    EXPECT_EQ(10U, source->GetVlanId());
}

TEST_F(U2AlertEventTest, TcpAlertWithVlanZeroSetsPortsAndNoVlan) {
    const auto source = SourceOf(u2test::Alert{});
    EXPECT_EQ(40000, source->GetIntruderPort());
    EXPECT_EQ(80, source->GetVictimPort());
    EXPECT_EQ(kNoVlan, source->GetVlanId());
}

TEST_F(U2AlertEventTest, IcmpAlertSetsTypeAndCodeAndNoPorts) {
    u2test::Alert alert;
    alert.protocol = 1;
    alert.sportItype = 8;
    alert.dportIcode = 0;
    const auto source = SourceOf(alert);
    EXPECT_EQ(8, source->GetIcmpType());
    EXPECT_EQ(0, source->GetIcmpCode());
    EXPECT_EQ(0, source->GetIntruderPort());
    EXPECT_EQ(0, source->GetVictimPort());
}

TEST_F(U2AlertEventTest, IcmpTypeAndCodeAreCutToTheirLowEightBits) {
    u2test::Alert alert = u2test::AlertIpv6();
    alert.protocol = 58;
    alert.sportItype = 0x0180;
    alert.dportIcode = 0xFF04;
    const auto source = SourceOf(alert);
    EXPECT_EQ(0x80, source->GetIcmpType());
    EXPECT_EQ(0x04, source->GetIcmpCode());
}

TEST_F(U2AlertEventTest, KeepsTheOtherFamilysIcmpOutOfAReport) {
    u2test::Alert ipv4;
    ipv4.protocol = 58;
    u2test::Alert ipv6 = u2test::AlertIpv6();
    ipv6.protocol = 1;
    for (const auto& source : {SourceOf(ipv4), SourceOf(ipv6)}) {
        EXPECT_EQ(0, source->GetIcmpType());
        EXPECT_EQ(0, source->GetIcmpCode());
        EXPECT_EQ(0, source->GetIntruderPort());
        EXPECT_EQ(0, source->GetVictimPort());
    }
}

TEST_F(U2AlertEventTest, OtherProtocolsSetNeitherPortsNorIcmp) {
    u2test::Alert alert;
    alert.protocol = 47;
    const auto source = SourceOf(alert);
    EXPECT_EQ(47, source->GetProtocol());
    EXPECT_EQ(0, source->GetIntruderPort());
    EXPECT_EQ(0, source->GetIcmpType());
}

TEST_F(U2AlertEventTest, AlertWithoutAttachmentsGivesNeitherPacketNorAttribute) {
    const auto source = SourceOf(u2test::Alert{});
    EXPECT_EQ(nullptr, source->GetPacket().pData);
    EXPECT_EQ(0, source->GetPacket().iCapturedSize);
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
    EXPECT_EQ(4U, source->GetPacket().uPacketLength);
    EXPECT_EQ(4, source->GetPacket().iCapturedSize);
    EXPECT_EQ(1700000001U, source->GetPacket().uSeconds);
    EXPECT_EQ(999U, source->GetPacket().uMicroseconds);
    const std::map<std::string, std::string> expected = {{"URL", "/a?b"}, {"server", "host"}};
    EXPECT_EQ(expected, PairsOf(*source));
}

TEST_F(U2AlertEventTest, WithoutThePacketTheAttributesStillGoIn) {
    const auto event = Made(u2test::Alert{});
    event->SetPacket(Made(u2test::Packet{}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 10, .data = "host"}).release());
    const auto source = SourceOf(*event, false);
    EXPECT_EQ(nullptr, source->GetPacket().pData);
    EXPECT_EQ(0U, source->GetPacket().uSeconds);
    EXPECT_EQ(2U, PairsOf(*source).size());
}

TEST_F(U2AlertEventTest, LaterAttachmentTakesThePlaceOfTheEarlier) {
    const auto event = Made(u2test::Alert{});
    event->SetPacket(Made(u2test::Packet{.data = {1}}).release());
    event->SetPacket(Made(u2test::Packet{.data = {1, 2}}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9, .data = "/first"}).release());
    event->SetExtraData(Made(u2test::ExtraData{.type = 9, .data = "/second"}).release());
    const auto source = SourceOf(*event);
    EXPECT_EQ(2, source->GetPacket().iCapturedSize);
    EXPECT_EQ("/second", PairsOf(*source).at("URL"));
}

TEST_F(U2AlertEventTest, RefusesExtraDataOfAnotherTypeAndLeavesItToTheCaller) {
    const auto event = Made(u2test::Alert{});
    const auto extra = Made(u2test::ExtraData{.type = 11, .data = "kept"});
    EXPECT_FALSE(event->SetExtraData(extra.get()));
    EXPECT_EQ(1, m_log.CountAt(3, "Unsupported ExtraData type receive from Snort"));
    EXPECT_EQ("kept", extra->text);
    EXPECT_TRUE(PairsOf(*SourceOf(*event)).empty());
}

TEST_F(U2AlertEventTest, ExtraDataIsTakenWhateverItsDataType) {
    const auto event = Made(u2test::Alert{});
    EXPECT_TRUE(event->SetExtraData(
        Made(u2test::ExtraData{.type = 9, .dataType = 4711, .data = "/any"}).release()));
    EXPECT_EQ("/any", PairsOf(*SourceOf(*event)).at("URL"));
}

TEST_F(U2PacketEventTest, CopiesItsFieldsAndPointsAtItsBytes) {
    const auto packet = Made(u2test::Packet{.eventId = 0x00010002, .data = {9, 8, 7}});
    EXPECT_EQ(0x00010002U, packet->eventId);
    EXPECT_EQ(3U, packet->length);
    EXPECT_EQ(3U, packet->held);
    EXPECT_EQ(1700000001U, packet->second);
    EXPECT_EQ(999U, packet->microsecond);
    EXPECT_EQ(packet->data, packet->raw.get() + 28);
    EXPECT_EQ((Bytes{9, 8, 7}), Bytes(packet->data, packet->data + packet->length));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(U2PacketEventTest, KeepsAShorterLengthThanTheRecordHolds) {
    const auto packet = LyingPacket(3);
    EXPECT_EQ(3U, packet->length);
    EXPECT_EQ(3U, packet->held);
    EXPECT_EQ(1, m_log.CountAt(2, kLengthWarning));
}

TEST_F(U2PacketEventTest, KeepsALongerLengthThanTheRecordHolds) {
    for (const uint32_t claimed : {9U, 65540U, 65541U, std::numeric_limits<uint32_t>::max()}) {
        const auto packet = LyingPacket(claimed);
        EXPECT_EQ(claimed, packet->length);
        ASSERT_EQ(4U, packet->held);
        EXPECT_EQ((Bytes{1, 2, 3, 4}), Bytes(packet->data, packet->data + 4));
    }
    EXPECT_EQ(4, m_log.CountAt(2, kLengthWarning));
}

TEST_F(U2PacketEventTest, LyingLengthReachesTheReportWithTheBytesThatExist) {
    const auto event = Made(u2test::Alert{});
    event->SetPacket(LyingPacket(9'000'000).release());
    const auto source = SourceOf(*event);
    EXPECT_EQ(9'000'000U, source->GetPacket().uPacketLength);
    EXPECT_EQ(9'000'000, source->GetPacket().iCapturedSize);
    EXPECT_EQ(4U, source->GetHeldBytes());
}

TEST_F(U2PacketEventTest, RecordWithoutBytesIsAPacketOfZeros) {
    const U2PacketEvent packet(Allocated(Bytes{}, 28), 0);
    EXPECT_EQ(0U, packet.eventId);
    EXPECT_EQ(0U, packet.length);
    EXPECT_EQ(1, m_log.CountAt(2, kLengthWarning));
}

TEST_F(U2PacketEventTest, RecordCutAfterItsLengthHoldsNoBytes) {
    u2test::Packet packet;
    packet.data = {};
    packet.claimedLength = 2;
    const U2PacketEvent event(Allocated(packet.Payload()), 27);
    EXPECT_EQ(2U, event.length);
    EXPECT_EQ(0U, event.held);
}

TEST_F(U2ExtraDataEventTest, CopiesItsFieldsAndItsTextWithZeroBytes) {
    const std::string text("a\0b", 3);
    const auto extra = Made(u2test::ExtraData{.eventId = 5, .type = 10, .data = text});
    EXPECT_EQ(5U, extra->eventId);
    EXPECT_EQ(10U, extra->type);
    EXPECT_EQ(extra->text, text);
}

TEST_F(U2ExtraDataEventTest, TakesTheBlobAtItsWordWhenNoRecordLengthIsGiven) {
    const U2ExtraDataEvent extra(Allocated(u2test::ExtraData{.data = "/whole"}.Payload()));
    EXPECT_EQ("/whole", extra.text);
}

TEST_F(U2ExtraDataEventTest, BlobOfEightIsAnEmptyText) {
    EXPECT_EQ("", Made(u2test::ExtraData{.data = ""})->text);
}

TEST_F(U2ExtraDataEventTest, KeepsThrowingOnABlobLengthBelowEight) {
    for (const int64_t length : {0, 1, 7}) {
        u2test::ExtraData extra;
        extra.claimedLength = length;
        EXPECT_THROW(Made(extra), std::length_error) << length;
    }
}

TEST_F(U2ExtraDataEventTest, KeepsALongerBlobThanTheRecordHolds) {
    for (const uint32_t claimed : {5U, 65538U, 65539U, 0xFFFFFFFFU - 8}) {
        const auto extra =
            Made(u2test::ExtraData{.data = "ab", .claimedLength = 8 + int64_t{claimed}});
        EXPECT_EQ("ab", extra->text);
        EXPECT_EQ(claimed - 2, extra->zeros);
    }
}

TEST_F(U2ExtraDataEventTest, KeepsAShorterBlobThanTheRecordHolds) {
    const auto extra = Made(u2test::ExtraData{.data = "abc", .claimedLength = 8 + 2});
    EXPECT_EQ("ab", extra->text);
    EXPECT_EQ(0U, extra->zeros);
}

TEST_F(U2ExtraDataEventTest, BytesBeyondTheRecordReachTheReportAsZeros) {
    for (const uint32_t type : {9U, 10U}) {
        const auto event = Made(u2test::Alert{});
        event->SetExtraData(
            Made(u2test::ExtraData{.type = type, .data = "ab", .claimedLength = 8 + 5}).release());
        const auto source = SourceOf(*event);
        const std::string bytes = BytesOf(*source);
        EXPECT_NE(std::string::npos, bytes.find(std::string("ab\0\0\0\0\0\xFF", 8)));
    }
}

}  // namespace
