#include "tarnctl/rings/crm_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "unit/tarnctl/rings/crm_reports.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

std::string ReasonFor(const CrmBytes& bytes) {
    // A copy of the exact size, so that the address sanitizer sees a read one byte too far.
    const CrmBytes exact(bytes);
    CrmReport message;
    return DecodeCrmReport(exact, message);
}

TEST(CrmReportDecode, TakesEveryPartOfAMessageApart) {
    CrmReport message;
    ASSERT_EQ("", DecodeCrmReport(Encode(SampleReport()), message));
    EXPECT_TRUE(message.IsBlocked());
    EXPECT_EQ(2019401U, message.report.issueId);
    EXPECT_EQ(0x0A010203U, message.report.intruderIp);
    EXPECT_EQ(80, message.report.victimPort);
    EXPECT_EQ("", message.nameValues);
    EXPECT_EQ("DISPLAY:WithRaw", message.userResponse);
    EXPECT_EQ("ET SCAN: probe:high", message.userData);
    EXPECT_EQ("", message.sensorName);
    ASSERT_TRUE(message.packet.has_value());
    EXPECT_EQ(250000U, message.packet->info.uMicroseconds);
    EXPECT_EQ(message.packet->bytes, SampleReport().packet->bytes);
    EXPECT_EQ(message.pairs, SampleReport().pairs);
}

TEST(CrmReportDecode, TakesAMessageWithNeitherPacketNorPairs) {
    CrmReport sample = SampleReport();
    sample.packet.reset();
    sample.pairs.clear();
    CrmReport message;
    ASSERT_EQ("", DecodeCrmReport(Encode(sample), message));
    EXPECT_FALSE(message.packet.has_value());
    EXPECT_TRUE(message.pairs.empty());
}

TEST(CrmReportDecode, ForgetsTheMessageBefore) {
    CrmReport message = SampleReport();
    CrmReport sample = SampleReport();
    sample.packet.reset();
    sample.pairs = {{"Rule", "x"}};
    ASSERT_EQ("", DecodeCrmReport(Encode(sample), message));
    EXPECT_FALSE(message.packet.has_value());
    EXPECT_EQ(message.pairs, sample.pairs);
}

TEST(CrmReportDecode, DividesNameAndSeverityAtTheLastColon) {
    CrmReport message;
    message.userData = "ET SCAN: probe:high";
    EXPECT_EQ("ET SCAN: probe", message.EventName());
    EXPECT_EQ("high", message.Severity());
}

TEST(CrmReportDecode, TakesATextWithoutAColonForTheNameAlone) {
    CrmReport message;
    message.userData = "probe";
    EXPECT_EQ("probe", message.EventName());
    EXPECT_EQ("", message.Severity());
}

TEST(CrmReportDecode, NeverHandsOutAPointerOfTheOtherProcess) {
    CrmReport sample = SampleReport();
    sample.userString = 0xDEADBEEF00000001;
    CrmBytes bytes = Encode(sample);
    PutWord(bytes, ChunkAt(bytes, kChunkPacket) + 8 + offsetof(PacketInfo, pData), 0xDEADBEEF);
    CrmReport message;
    ASSERT_EQ("", DecodeCrmReport(bytes, message));
    EXPECT_EQ(nullptr, message.report.userString);
    EXPECT_EQ(0xDEADBEEF00000001, message.userString);
    EXPECT_EQ(nullptr, message.packet->info.pData);
}

struct Malformed {
    const char* name;
    std::function<void(CrmBytes&)> damage;
    const char* reason;
};

class CrmReportMalformed : public testing::TestWithParam<Malformed> {};

TEST_P(CrmReportMalformed, IsRefusedWithItsReason) {
    CrmBytes bytes = Encode(SampleReport());
    GetParam().damage(bytes);
    EXPECT_THAT(ReasonFor(bytes), HasSubstr(GetParam().reason));
}

size_t At(const CrmBytes& bytes, uint32_t chunk, size_t offset) {
    return ChunkAt(bytes, chunk) + offset;
}

const Malformed kMalformed[] = {
    {"Empty", [](CrmBytes& b) { b.clear(); }, "the report chunk is missing"},
    {"OtherFirstChunk", [](CrmBytes& b) { PutWord(b, 0, 7); },
     "the report chunk is missing: type 7 stands in its place"},
    {"ReportTooShort", [](CrmBytes& b) { PutWord(b, 4, 291); },
     "the report chunk has a length of 291 bytes and needs at least 292"},
    {"ReportLongerThanMessage", [](CrmBytes& b) { PutWord(b, 4, 0xFFFFFFFF); },
     "the report chunk has a length of 4294967295 bytes where the message has"},
    {"FirstOffsetWrong", [](CrmBytes& b) { PutWord(b, 8, 0); },
     "the name values string is said to be at 0 and is at 256"},
    {"LaterOffsetWrong", [](CrmBytes& b) { PutWord(b, 16, 0xFFFFFFF0); },
     "the user data string is said to be at 4294967280"},
    {"OtherVersion", [](CrmBytes& b) { b[32] = std::byte{2}; }, "the report has the version 2"},
    {"StringWithoutEnd",
     [](CrmBytes& b) {
         const size_t end = ChunkAt(b, kChunkPacket);
         b[end - 1] = std::byte{'x'};
     },
     "the sensor name string has no end"},
    {"BytesBehindTheStrings",
     [](CrmBytes& b) {
         const size_t end = ChunkAt(b, kChunkPacket);
         b.insert(b.begin() + static_cast<ptrdiff_t>(end), std::byte{0});
         PutWord(b, 4, static_cast<uint32_t>(end + 1));
     },
     "1 byte after the strings"},
    {"PacketTooShort", [](CrmBytes& b) { PutWord(b, At(b, kChunkPacket, 4), 47); },
     "the packet chunk has a length of 47 bytes and needs at least 48"},
    {"PacketLongerThanMessage", [](CrmBytes& b) { PutWord(b, At(b, kChunkPacket, 4), 4096); },
     "the packet chunk has a length of 4096 bytes where the message has"},
    {"CapturedSizeWrong", [](CrmBytes& b) { PutWord(b, At(b, kChunkPacket, 12), 5); },
     "the packet is said to have 5 bytes and has 4"},
    {"CapturedSizeNegative", [](CrmBytes& b) { PutWord(b, At(b, kChunkPacket, 12), 0xFFFFFFFF); },
     "the packet is said to have -1 bytes and has 4"},
    {"PairsMissing", [](CrmBytes& b) { PutWord(b, At(b, kChunkNameValues, 0), 9); },
     "the name value chunk is missing: type 9 stands in its place"},
    {"PairsTooShort", [](CrmBytes& b) { PutWord(b, At(b, kChunkNameValues, 4), 8); },
     "the name value chunk has a length of 8 bytes and needs at least 9"},
    {"PairsWithoutEnd", [](CrmBytes& b) { b[ChunkAt(b, kChunkEnd) - 1] = std::byte{'x'}; },
     "the pairs have no end"},
    {"ValueWithoutEnd",
     [](CrmBytes& b) {
         const size_t end = ChunkAt(b, kChunkEnd);
         b[end - 1] = b[end - 2] = std::byte{'x'};
         b[At(b, kChunkNameValues, 8) + 16] = std::byte{'x'};
     },
     "no end"},
    {"BytesBehindThePairs", [](CrmBytes& b) { b[At(b, kChunkNameValues, 8)] = std::byte{0}; },
     "bytes after the end of the pairs"},
    {"EndMissing", [](CrmBytes& b) { b.resize(ChunkAt(b, kChunkEnd)); },
     "the end chunk is missing"},
    {"EndCutShort", [](CrmBytes& b) { b.resize(b.size() - 1); }, "the end chunk is missing"},
    {"EndTooLong",
     [](CrmBytes& b) {
         PutWord(b, At(b, kChunkEnd, 4), 9);
         b.push_back(std::byte{0});
     },
     "the end chunk has a length of 9 bytes"},
    {"BytesBehindTheEnd", [](CrmBytes& b) { b.push_back(std::byte{0}); },
     "1 byte after the end chunk"},
};

INSTANTIATE_TEST_SUITE_P(EveryKind, CrmReportMalformed, testing::ValuesIn(kMalformed),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST(CrmReportDecode, RefusesTwoPairsOfOneName) {
    CrmReport sample = SampleReport();
    sample.pairs = {{"URL", "a"}, {"URL", "b"}};
    EXPECT_EQ("two pairs have the same name", ReasonFor(Encode(sample)));
}

TEST(CrmReportDecode, RefusesEveryMessageThatIsCutShort) {
    const CrmBytes whole = Encode(SampleReport());
    for (size_t length = 0; length < whole.size(); ++length) {
        const CrmBytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
        EXPECT_NE("", ReasonFor(cut)) << length << " bytes";
    }
}

// Whatever a message holds, it is either refused or understood to its last byte: what was decoded
// makes the same message again.
TEST(CrmReportDecode, UnderstandsEveryByteOfWhatItAccepts) {
    std::mt19937 random(20240611);
    const CrmBytes whole = Encode(SampleReport());
    const size_t packetPointer = ChunkAt(whole, kChunkPacket) + 8 + offsetof(PacketInfo, pData);
    const auto isCarriedAlong = [packetPointer](size_t at) {
        return (at >= 28 && at < 32) || (at >= packetPointer && at < packetPointer + 8);
    };
    unsigned accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        CrmBytes bytes = whole;
        for (unsigned damage = 0; damage <= random() % 4; ++damage) {
            const size_t at = random() % bytes.size();
            if (!isCarriedAlong(at)) {
                bytes[at] = static_cast<std::byte>(random() % 3 == 0 ? random() % 4 : random());
            }
        }
        const CrmBytes exact(bytes);
        CrmReport message;
        if (DecodeCrmReport(exact, message).empty()) {
            ++accepted;
            ASSERT_EQ(Encode(message), bytes) << "round " << round;
        }
    }
    EXPECT_GT(accepted, 1000U);
}

TEST(CrmReportDecode, SurvivesBytesOfNoFormAtAll) {
    std::mt19937 random(7);
    for (int round = 0; round < 5000; ++round) {
        CrmBytes bytes(random() % 700);
        for (std::byte& byte : bytes) {
            byte = static_cast<std::byte>(random() % 2 == 0 ? 0 : random());
        }
        EXPECT_NE("", ReasonFor(bytes));
    }
}

}  // namespace
}  // namespace tarnctl
