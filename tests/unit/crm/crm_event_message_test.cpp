#include "crm/crm_event_message.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory_resource>
#include <new>
#include <numeric>
#include <string>
#include <vector>

#include "crm/crm_event_source.h"
#include "support/golden_bytes.h"
#include "support/log_capture.h"
#include "support/word_at.h"
#include "unit/crm/report_samples.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Gathered(const CrmEventMessage& message) {
    Bytes bytes;
    for (int i = 0; i < message.PieceCount(); ++i) {
        const iovec& piece = message.Pieces()[i];
        const auto* from = static_cast<const uint8_t*>(piece.iov_base);
        bytes.insert(bytes.end(), from, from + piece.iov_len);
    }
    return bytes;
}

Bytes Gathered(const CrmEventSource& source) {
    return Gathered(CrmEventMessage(source));
}

// The texts of the report chunk by their offsets, in the order of the header.
std::vector<std::string> Texts(const Bytes& bytes) {
    std::vector<std::string> texts;
    for (size_t field = 8; field <= 20; field += 4) {
        texts.emplace_back(reinterpret_cast<const char*>(&bytes.at(32 + WordAt(bytes, field))));
    }
    return texts;
}

// The types of the chunks after the report chunk.
std::vector<uint32_t> ChunkTypes(const Bytes& bytes) {
    std::vector<uint32_t> types;
    for (size_t at = 0; at < bytes.size(); at += WordAt(bytes, at + 4)) {
        types.push_back(WordAt(bytes, at));
    }
    return types;
}

TEST(CrmEventMessageGolden, HasTheBytesOfAReportWithoutPacketAndPairs) {
    const CrmEventSource source = samples::Minimal();
    EXPECT_EQ(GoldenBytes("event_report_minimal.txt"), Gathered(source));
}

TEST(CrmEventMessageGolden, HasTheBytesOfAnIpv4ReportWithPacketAndPairs) {
    const CrmEventSource source = samples::Ipv4();
    EXPECT_EQ(GoldenBytes("event_report_ipv4.txt"), Gathered(source));
}

TEST(CrmEventMessageGolden, HasTheBytesOfAnIpv6ReportWithPacketAndPairs) {
    const CrmEventSource source = samples::Ipv6();
    EXPECT_EQ(GoldenBytes("event_report_ipv6.txt"), Gathered(source));
}

TEST(CrmEventMessage, OfAReportWithoutPairsAndPacketHasNinePiecesAndAnEmptyList) {
    const CrmEventSource source(4);
    const CrmEventMessage message(source);
    EXPECT_EQ(9, message.PieceCount());
    const Bytes bytes = Gathered(message);
    const size_t pairs = WordAt(bytes, 4);
    EXPECT_EQ(3u, WordAt(bytes, pairs));
    EXPECT_EQ(9u, WordAt(bytes, pairs + 4));
    EXPECT_EQ(0, bytes.at(pairs + 8));
    EXPECT_EQ(0xFFu, WordAt(bytes, pairs + 9));
    EXPECT_EQ(8u, WordAt(bytes, pairs + 13));
    EXPECT_EQ(pairs + 17, bytes.size());
}

TEST(CrmEventMessage, PointsIntoTheEventAndCopiesNothing) {
    const uint8_t packet[] = {1, 2, 3};
    CrmEventSource source(4);
    source.SetUserResponse(0x02, "response");
    source.SetPacket(packet, sizeof(packet), 0, 0);
    const CrmEventMessage message(source);
    std::vector<const void*> starts;
    for (int i = 0; i < message.PieceCount(); ++i) {
        starts.push_back(message.Pieces()[i].iov_base);
    }
    EXPECT_THAT(starts, testing::Contains(static_cast<const void*>(packet)));
    EXPECT_THAT(starts, testing::Contains(static_cast<const void*>(&source.GetReport())));
}

TEST(CrmEventMessage, OfTheUsualEventTakesNothingFromTheHeap) {
    class Refusing : public std::pmr::memory_resource {
        void* do_allocate(size_t, size_t) override { throw std::bad_alloc(); }
        void do_deallocate(void*, size_t, size_t) override {}
        bool do_is_equal(const memory_resource& other) const noexcept override {
            return this == &other;
        }
    };
    CrmEventSource source = samples::Ipv4();
    source.SetEventName(std::string(500, 'n'));
    Refusing refusing;
    std::pmr::memory_resource* const former = std::pmr::set_default_resource(&refusing);
    EXPECT_NO_THROW(CrmEventMessage{source});
    source.SetEventName(std::string(5000, 'n'));
    EXPECT_THROW(CrmEventMessage{source}, std::bad_alloc)
        << "what does not fit comes from the heap";
    std::pmr::set_default_resource(former);
}

TEST(CrmEventMessageTexts, OneLetterAndSeverityTwoGiveNineBytes) {
    CrmEventSource source(4);
    source.SetEventName("A");
    source.SetSeverity(2);
    const Bytes bytes = Gathered(source);
    EXPECT_EQ("A:medium", Texts(bytes)[2]);
    EXPECT_EQ(9u, WordAt(bytes, 20) - WordAt(bytes, 16));
}

TEST(CrmEventMessageTexts, SeverityHasAWordForOneToThree) {
    CrmEventSource source(4);
    source.SetEventName("n");
    const std::vector<std::string> words = {"n:low", "n:medium", "n:high"};
    const LogCapture log(5);
    for (uint32_t severity = 1; severity <= 3; ++severity) {
        source.SetSeverity(severity);
        EXPECT_EQ(words[severity - 1], Texts(Gathered(source))[2]);
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST(CrmEventMessageTexts, UnknownSeverityIsSentAsLowWithAWarning) {
    CrmEventSource source(4);
    for (const uint32_t severity : {0u, 4u, 0xFFFFFFFFu}) {
        const LogCapture log(2);
        source.SetSeverity(severity);
        EXPECT_EQ("Unnamed Snort Event:low", Texts(Gathered(source))[2]);
        EXPECT_THAT(log.Messages(), testing::ElementsAre("Unknown event severity, send as low."));
    }
    const LogCapture errorsOnly(1);
    (void)Gathered(source);
    EXPECT_TRUE(errorsOnly.Messages().empty());
}

TEST(CrmEventMessageTexts, UserResponseLosesOneCommaInFrontAndEventNameKeepsItsOwn) {
    CrmEventSource source(4);
    source.SetUserResponse(0, ",,DISPLAY");
    source.SetEventName(",name");
    source.SetSeverity(1);
    const Bytes bytes = Gathered(source);
    EXPECT_EQ((std::vector<std::string>{"", ",DISPLAY", ",name:low", ""}), Texts(bytes));
    EXPECT_EQ(256u, WordAt(bytes, 8));
    EXPECT_EQ(257u, WordAt(bytes, 12));
    EXPECT_EQ(257u + sizeof(",DISPLAY"), WordAt(bytes, 16));
    EXPECT_EQ(WordAt(bytes, 16) + sizeof(",name:low"), WordAt(bytes, 20));
    EXPECT_EQ(32 + WordAt(bytes, 20) + 1, WordAt(bytes, 4));
}

TEST(CrmEventMessageTexts, UserResponseThatIsOneCommaBecomesEmpty) {
    CrmEventSource source(4);
    source.SetUserResponse(0, ",");
    const Bytes bytes = Gathered(source);
    EXPECT_EQ("", Texts(bytes)[1]);
    EXPECT_EQ(1u, WordAt(bytes, 16) - WordAt(bytes, 12));
}

TEST(CrmEventMessagePacket, IsLeftOutWhenThereIsNoneOrItIsNotWanted) {
    const uint8_t packet[] = {1, 2, 3};
    CrmEventSource withoutPacket(4);
    withoutPacket.SetUserResponse(0x02, "");
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 0xFF}), ChunkTypes(Gathered(withoutPacket)));

    CrmEventSource notWanted(4);
    notWanted.SetUserResponse(0xFD, "");
    notWanted.SetPacket(packet, sizeof(packet), 0, 0);
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 0xFF}), ChunkTypes(Gathered(notWanted)));

    CrmEventSource empty(4);
    empty.SetUserResponse(0x02, "");
    empty.SetPacket(packet, 0, 0, 0);
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 0xFF}), ChunkTypes(Gathered(empty)));

    notWanted.SetUserResponse(0x02, "");
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 0xFF}), ChunkTypes(Gathered(notWanted)));
}

TEST(CrmEventMessagePacket, LengthFollowsTheLastSetPacket) {
    const uint8_t packet[] = {1, 2, 3, 4};
    CrmEventSource source(4);
    source.SetUserResponse(0x02, "");
    source.SetPacket(packet, 4, 0, 0);
    source.SetPacket(packet, 0, 0, 0);
    source.SetPacket(packet, 2, 9, 8);
    const Bytes bytes = Gathered(source);
    const size_t chunk = WordAt(bytes, 4);
    EXPECT_EQ(50u, WordAt(bytes, chunk + 4));
    EXPECT_EQ(2u, WordAt(bytes, chunk + 8));
    EXPECT_EQ(2u, WordAt(bytes, chunk + 12));
    EXPECT_EQ(9u, WordAt(bytes, chunk + 16));
    EXPECT_EQ(8u, WordAt(bytes, chunk + 20));
    EXPECT_EQ(Bytes({1, 2}), Bytes(bytes.begin() + static_cast<long>(chunk) + 48,
                                   bytes.begin() + static_cast<long>(chunk) + 50));
}

TEST(CrmEventMessagePacket, KeepsTheHostsPointerOffTheWireAlsoForAPrivateCopy) {
    const uint8_t packet[] = {1, 2, 3, 4};
    CrmEventSource source(4);
    source.SetUserResponse(0x02, "");
    source.SetPacket(packet, 4, 0, 0);
    source.CopyPacket();
    const Bytes bytes = Gathered(source);
    const size_t chunk = WordAt(bytes, 4);
    EXPECT_EQ(Bytes(24, 0), Bytes(bytes.begin() + static_cast<long>(chunk) + 24,
                                  bytes.begin() + static_cast<long>(chunk) + 48));
}

TEST(CrmEventMessagePacket, LengthThatIsNoneOfTheHeldBytesGoesOutWithZeros) {
    const uint8_t packet[] = {1, 2, 3, 4};
    CrmEventSource source(4);
    source.SetUserResponse(0x02, "");
    source.SetPacket(packet, 65542, 9, 8, 3);
    const Bytes bytes = Gathered(source);
    const size_t chunk = WordAt(bytes, 4);
    EXPECT_EQ(48u + 65542, WordAt(bytes, chunk + 4));
    EXPECT_EQ(65542u, WordAt(bytes, chunk + 8));
    EXPECT_EQ(65542u, WordAt(bytes, chunk + 12));
    Bytes expected = {1, 2, 3};
    expected.resize(65542);
    EXPECT_EQ(expected, Bytes(bytes.begin() + static_cast<long>(chunk) + 48,
                              bytes.begin() + static_cast<long>(chunk) + 48 + 65542));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 0xFF}), ChunkTypes(bytes));
}

TEST(CrmEventMessagePacket, ClaimBeyondTheRingIsLongerThanTheRingAndNoLonger) {
    const uint8_t packet[] = {1};
    for (const uint32_t claimed : {9'000'000U, 0xFFFFFFFFU}) {
        CrmEventSource source(4);
        source.SetUserResponse(0x02, "");
        source.SetPacket(packet, claimed, 0, 0, 1);
        const CrmEventMessage message(source);
        size_t length = 0;
        for (int i = 0; i < message.PieceCount(); ++i) {
            length += message.Pieces()[i].iov_len;
        }
        EXPECT_LT(0x800000U, length);
        EXPECT_GT(0x900000U, length);
    }
}

TEST(CrmEventMessagePacket, PrivateCopyHoldsTheHeldBytesOnly) {
    const uint8_t packet[] = {1, 2, 3};
    CrmEventSource source(4);
    source.SetUserResponse(0x02, "");
    source.SetPacket(packet, 0xFFFFFFFF, 0, 0, 3);
    source.CopyPacket();
    EXPECT_EQ(3u, source.GetHeldBytes());
    EXPECT_EQ(Bytes({1, 2, 3}), Bytes(source.GetPacket().pData, source.GetPacket().pData + 3));
    const CrmEventSource copy(source);
    EXPECT_EQ(3u, copy.GetHeldBytes());
}

std::string PairsOf(const CrmEventSource& source) {
    const Bytes bytes = Gathered(source);
    const size_t chunk = WordAt(bytes, 4);
    return {reinterpret_cast<const char*>(&bytes.at(chunk + 8)), WordAt(bytes, chunk + 4) - 8};
}

TEST(CrmEventMessagePairs, ArriveInTheOrderOfTheirBytesWhateverTheOrderOfAdding) {
    CrmEventSource source(4);
    EXPECT_EQ(0, source.AddNameValue("server", "s"));
    EXPECT_EQ(0, source.AddNameValue("URL", "u"));
    EXPECT_EQ(0, source.AddNameValue("Rule", "r"));
    EXPECT_EQ(0, source.AddNameValue("\xc3", "x"));
    using namespace std::string_literals;
    EXPECT_EQ("Rule\0r\0URL\0u\0server\0s\0\xc3\0x\0\0"s, PairsOf(source));
}

TEST(CrmEventMessagePairs, KeepOneValueAKeyAndTheLaterOne) {
    CrmEventSource source(4);
    source.AddNameValue("Rule", "first");
    source.AddNameValue("Rule", "second");
    using namespace std::string_literals;
    EXPECT_EQ("Rule\0second\0\0"s, PairsOf(source));
    EXPECT_EQ(0, source.ClearNameValues());
    EXPECT_EQ("\0"s, PairsOf(source));
}

TEST(CrmEventMessagePairs, CountZeroBytesInsideAValue) {
    CrmEventSource source(4);
    using namespace std::string_literals;
    source.AddNameValue("URL", "/a\0b"s);
    EXPECT_EQ("URL\0/a\0b\0\0"s, PairsOf(source));
}

TEST(CrmEventMessagePairs, HaveTheZerosOfAValueAfterItsText) {
    CrmEventSource source(4);
    using namespace std::string_literals;
    source.AddNameValue("URL", "/a", 3);
    source.AddNameValue("server", "", 1);
    EXPECT_EQ("URL\0/a\0\0\0\0server\0\0\0\0"s, PairsOf(source));
    source.AddNameValue("URL", "/a");
    EXPECT_EQ("URL\0/a\0server\0\0\0\0"s, PairsOf(source));
}

TEST(CrmEventMessagePairs, MayBeMoreThanTheUsualOnesAndTheNameLongerThanTheRoom) {
    CrmEventSource source(4);
    const std::string name(5000, 'n');
    source.SetEventName(name);
    source.SetSeverity(1);
    std::string expected;
    for (int i = 100; i < 300; ++i) {
        source.AddNameValue(std::to_string(i), "v");
        expected += std::to_string(i) + '\0' + "v" + '\0';
    }
    expected += '\0';
    EXPECT_EQ(expected, PairsOf(source));
    EXPECT_EQ(name + ":low", Texts(Gathered(source))[2]);
}

}  // namespace
