#include "tarnctl/show/record_content.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "support/unified2_records.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

std::string Decode(uint32_t type, const u2test::Bytes& payload, RecordContent& content) {
    return DecodeRecord(type, std::as_bytes(std::span(payload)), content);
}

u2test::Alert FullAlert() {
    u2test::Alert alert;
    alert.sensorId = 1;
    alert.eventId = 2;
    alert.eventSecond = 3;
    alert.eventMicrosecond = 4;
    alert.signatureId = 5;
    alert.generatorId = 6;
    alert.signatureRevision = 7;
    alert.classificationId = 8;
    alert.priorityId = 9;
    alert.impactFlag = 10;
    alert.impact = 11;
    alert.blocked = 12;
    alert.mplsLabel = 13;
    alert.vlanId = 14;
    alert.policyId = 15;
    return alert;
}

void ExpectFields(const EventContent& event) {
    EXPECT_EQ(1U, event.sensorId);
    EXPECT_EQ(2U, event.eventId);
    EXPECT_EQ(3U, event.second);
    EXPECT_EQ(4U, event.microsecond);
    EXPECT_EQ(5U, event.signatureId);
    EXPECT_EQ(6U, event.generatorId);
    EXPECT_EQ(7U, event.revision);
    EXPECT_EQ(8U, event.classification);
    EXPECT_EQ(9U, event.priority);
    EXPECT_EQ(40000, event.sourcePort);
    EXPECT_EQ(80, event.destinationPort);
}

TEST(DecodeRecord, ReadsEventsOfBothFamilies) {
    for (const bool isIpv6 : {false, true}) {
        u2test::Alert alert = FullAlert();
        if (isIpv6) {
            alert.source = u2test::AlertIpv6().source;
            alert.destination = u2test::AlertIpv6().destination;
        }
        for (const uint32_t type : isIpv6 ? std::array<uint32_t, 4>{72, 100, 105, 112}
                                          : std::array<uint32_t, 4>{7, 99, 104, 111}) {
            RecordContent content;
            ASSERT_EQ("", Decode(type, alert.Payload(), content));
            EXPECT_STREQ("event", KindOfRecord(type));
            const auto& event = std::get<EventContent>(content);
            ExpectFields(event);
            EXPECT_EQ(isIpv6 ? "2001:db8::1" : "10.1.2.3", AddressText(event.source));
            EXPECT_EQ(isIpv6 ? "2001:db8::2" : "192.168.0.1", AddressText(event.destination));
            EXPECT_EQ(6, event.protocol);
            EXPECT_EQ(10, event.impactFlag);
            EXPECT_EQ(11, event.impact);
            EXPECT_EQ(12, event.blocked);
            EXPECT_EQ(13U, event.mplsLabel);
            EXPECT_EQ(14, event.vlanId);
            EXPECT_THAT(event.policies, ElementsAre(15));
            EXPECT_EQ("", event.application);
        }
    }
}

TEST(DecodeRecord, LeavesOutWhatAnOlderEventDoesNotHave) {
    u2test::Bytes payload = FullAlert().Payload();
    RecordContent content;
    payload.resize(56);
    ASSERT_EQ("", Decode(99, payload, content));
    EXPECT_EQ(13U, std::get<EventContent>(content).mplsLabel);
    EXPECT_EQ(std::nullopt, std::get<EventContent>(content).vlanId);
    EXPECT_THAT(std::get<EventContent>(content).policies, IsEmpty());
    payload.resize(52);
    ASSERT_EQ("", Decode(7, payload, content));
    EXPECT_EQ(12, std::get<EventContent>(content).blocked);
    EXPECT_EQ(std::nullopt, std::get<EventContent>(content).mplsLabel);
    payload.resize(51);
    EXPECT_EQ("51 bytes of payload, where its kind needs at least 52", Decode(7, payload, content));
    u2test::Alert ipv6 = u2test::AlertIpv6();
    payload = ipv6.Payload();
    payload.resize(75);
    EXPECT_EQ("75 bytes of payload, where its kind needs at least 76",
              Decode(72, payload, content));
}

TEST(DecodeRecord, ReadsTheNameOfAnApplicationOfEitherSize) {
    u2test::Bytes payload = FullAlert().Payload();
    payload.insert(payload.end(), {'w', 'e', 'b'});
    payload.resize(60 + 16);
    RecordContent content;
    ASSERT_EQ("", Decode(111, payload, content));
    EXPECT_EQ("web", std::get<EventContent>(content).application);
    payload.resize(60);
    payload.resize(60 + 80, 'x');
    ASSERT_EQ("", Decode(104, payload, content));
    EXPECT_EQ(std::string(64, 'x'), std::get<EventContent>(content).application);
    payload.resize(60 + 15);
    ASSERT_EQ("", Decode(104, payload, content));
    EXPECT_EQ("", std::get<EventContent>(content).application);
}

TEST(DecodeRecord, ReadsTheEventOfBothFamiliesInOne) {
    u2test::Bytes payload;
    for (const uint32_t word : {1U, 2U, 3U, 4U, 6U, 5U, 7U, 8U, 9U, 21U, 22U, 23U}) {
        u2test::Put32(payload, word);
    }
    u2test::Append(payload, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 10, 1, 2, 3});
    u2test::Append(payload, u2test::AlertIpv6().destination);
    u2test::Put32(payload, 13);
    u2test::Put16(payload, 40000);
    u2test::Put16(payload, 80);
    u2test::Put16(payload, 14);
    RecordContent content;
    ASSERT_EQ("", Decode(1, payload, content));
    const auto& event = std::get<EventContent>(content);
    ExpectFields(event);
    EXPECT_EQ("10.1.2.3", AddressText(event.source));
    EXPECT_EQ("2001:db8::2", AddressText(event.destination));
    EXPECT_EQ(13U, event.mplsLabel);
    EXPECT_EQ(14, event.vlanId);
    EXPECT_THAT(event.policies, ElementsAre(21, 22, 23));
    EXPECT_EQ(std::nullopt, event.protocol);
    payload.pop_back();
    EXPECT_THAT(Decode(1, payload, content), HasSubstr("at least 90"));
}

TEST(DecodeRecord, ReadsPacketsAndBuffers) {
    u2test::Packet packet;
    packet.sensorId = 1;
    packet.eventId = 2;
    packet.eventSecond = 3;
    packet.linktype = 101;
    const u2test::Bytes payload = packet.Payload();
    for (const uint32_t type : {2U, 3U}) {
        RecordContent content;
        ASSERT_EQ("", Decode(type, payload, content));
        const auto& shown = std::get<PacketContent>(content);
        EXPECT_EQ(1U, shown.sensorId);
        EXPECT_EQ(2U, shown.eventId);
        EXPECT_EQ(3U, shown.eventSecond);
        EXPECT_EQ(1700000001U, shown.second);
        EXPECT_EQ(999U, shown.microsecond);
        EXPECT_EQ(101U, shown.linkType);
        EXPECT_EQ(4U, shown.length);
        EXPECT_THAT(shown.bytes, ElementsAre(std::byte{0xDE}, std::byte{0xAD}, std::byte{0xBE},
                                             std::byte{0xEF}));
    }
    EXPECT_STREQ("packet", KindOfRecord(2));
    EXPECT_STREQ("buffer", KindOfRecord(3));
}

TEST(DecodeRecord, TakesAsMuchOfAPacketAsThereIs) {
    u2test::Packet packet;
    packet.claimedLength = 1500;
    RecordContent content;
    ASSERT_EQ("", Decode(2, packet.Payload(), content));
    EXPECT_EQ(1500U, std::get<PacketContent>(content).length);
    EXPECT_EQ(4U, std::get<PacketContent>(content).bytes.size());
    packet.claimedLength = 3;
    ASSERT_EQ("", Decode(2, packet.Payload(), content));
    EXPECT_EQ(3U, std::get<PacketContent>(content).bytes.size());
    EXPECT_THAT(Decode(2, u2test::Bytes(27), content), HasSubstr("at least 28"));
}

TEST(DecodeRecord, ReadsExtraData) {
    u2test::ExtraData extra;
    extra.sensorId = 1;
    extra.eventId = 2;
    extra.dataType = 5;
    RecordContent content;
    ASSERT_EQ("", Decode(110, extra.Payload(), content));
    const auto& shown = std::get<ExtraContent>(content);
    EXPECT_EQ(1U, shown.sensorId);
    EXPECT_EQ(2U, shown.eventId);
    EXPECT_EQ(1700000000U, shown.eventSecond);
    EXPECT_EQ(9U, shown.type);
    EXPECT_EQ(5U, shown.dataType);
    EXPECT_EQ(11U, shown.bytes.size());
    EXPECT_EQ("HTTP URI", KindOfExtraData(9));
    EXPECT_EQ("HTTP host name", KindOfExtraData(10));
    EXPECT_EQ("normalized script", KindOfExtraData(13));
    EXPECT_EQ("", KindOfExtraData(14));
    EXPECT_EQ("", KindOfExtraData(0xFFFFFFFF));
}

TEST(DecodeRecord, RefusesExtraDataThatClaimsWhatIsNotThere) {
    u2test::ExtraData extra;
    RecordContent content;
    for (const int64_t claim : {0, 7, 20, 0x7FFFFFFF}) {
        extra.claimedLength = claim;
        EXPECT_EQ("extra data is said to have " + std::to_string(claim) + " bytes and has 19",
                  Decode(110, extra.Payload(), content));
    }
    extra.claimedLength = 8;
    EXPECT_EQ("", Decode(110, extra.Payload(), content));
    EXPECT_THAT(Decode(110, u2test::Bytes(31), content), HasSubstr("at least 32"));
}

TEST(DecodeRecord, ReadsStatisticsOfApplicationsWithNamesOfEitherSize) {
    for (const size_t size : {size_t{16}, size_t{64}}) {
        u2test::Bytes payload;
        u2test::Put32(payload, 1700000000);
        u2test::Put32(payload, 2);
        for (const char letter : {'a', 'b'}) {
            u2test::Bytes name(size);
            name[0] = static_cast<uint8_t>(letter);
            u2test::Append(payload, name);
            u2test::Put32(payload, 100);
            u2test::Put32(payload, 200);
        }
        RecordContent content;
        ASSERT_EQ("", Decode(113, payload, content));
        const auto& shown = std::get<StatisticsContent>(content);
        EXPECT_EQ(1700000000U, shown.second);
        ASSERT_EQ(2U, shown.applications.size());
        EXPECT_EQ("a", shown.applications[0].name);
        EXPECT_EQ("b", shown.applications[1].name);
        EXPECT_EQ(100U, shown.applications[1].fromInitiator);
        EXPECT_EQ(200U, shown.applications[1].fromResponder);
    }
    RecordContent content;
    u2test::Bytes payload;
    u2test::Put32(payload, 0);
    u2test::Put32(payload, 2);
    payload.resize(8 + 47);
    EXPECT_EQ("2 applications where the record has room for 1", Decode(113, payload, content));
    EXPECT_THAT(Decode(113, u2test::Bytes(7), content), HasSubstr("at least 8"));
    EXPECT_THAT(Decode(113, u2test::Bytes(8, 0xFF), content), HasSubstr("has room for 0"));
}

TEST(DecodeRecord, NamesWhatItDoesNotTakeApart) {
    RecordContent content;
    for (const auto& [type, name] : std::initializer_list<std::pair<uint32_t, const char*>>{
             {66, "extended event"}, {67, "performance"}, {68, "port scan"}, {5, "unknown"}}) {
        EXPECT_EQ("", Decode(type, {}, content));
        EXPECT_TRUE(std::holds_alternative<OtherContent>(content));
        EXPECT_STREQ(name, KindOfRecord(type));
    }
}

TEST(DecodeRecord, ReadsNothingOutsideThePayloadWhateverIsInIt) {
    std::mt19937 random(5);
    for (int round = 0; round < 20'000; ++round) {
        u2test::Bytes payload(random() % 200);
        for (uint8_t& byte : payload) {
            byte = static_cast<uint8_t>(random() % 3 == 0 ? random() : 0);
        }
        payload.shrink_to_fit();
        RecordContent content;
        for (const uint32_t type : {1U, 2U, 7U, 72U, 104U, 105U, 110U, 111U, 113U}) {
            (void)Decode(type, payload, content);
        }
    }
    SUCCEED();
}

}  // namespace
}  // namespace tarnctl
