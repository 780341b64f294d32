#include "tarnctl/quarantine/quarantine_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "logging/log.h"
#include "unit/tarnctl/quarantine/quarantine_parts.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

constexpr time_t kNovember = 1794495600;  // 2026-11-12T15:00:00Z

QuarantineParts Parse(const std::string& text) {
    QuarantineParts parts;
    EXPECT_EQ("", ParseQuarantineText(text, parts)) << text;
    return parts;
}

// The writer reports each protocol that it has no name for; here that is noise.
class QuarantineTextProperty : public testing::Test {
  protected:
    QuarantineTextProperty() { vald::Log::SetLevel(vald::Log::kError); }
    ~QuarantineTextProperty() override { vald::Log::SetLevel(vald::Log::kNotice); }
};

// A million rules in all; fewer where every access is instrumented.
constexpr int kParts = 4;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kTurns = 20000;
#else
constexpr int kTurns = 250000;
#endif

class ManyQuarantineTexts : public QuarantineTextProperty,
                            public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Parts, ManyQuarantineTexts, testing::Range(0, kParts));

TEST_P(ManyQuarantineTexts, GiveBackEachRuleAndItsText) {
    RandomParts random(20261112 + static_cast<uint64_t>(GetParam()));
    for (int turn = 0; turn < kTurns; ++turn) {
        const QuarantineParts parts = random.Next();
        const std::string text = WriteQuarantineText(parts);
        QuarantineParts parsed;
        const std::string reason = ParseQuarantineText(text, parsed);
        ASSERT_EQ("", reason) << "turn " << turn << ": " << text;
        ASSERT_EQ(parsed, parts) << "turn " << turn << ": " << text;
        ASSERT_EQ(WriteQuarantineText(parsed), text) << "turn " << turn;
    }
}

// Whatever is taken is what the writer writes, however the text came about.
TEST_F(QuarantineTextProperty, TakesADamagedTextOnlyIfItIsWellFormedAgain) {
    RandomParts random(4711);
    int taken = 0;
    for (int turn = 0; turn < kTurns; ++turn) {
        std::string text = WriteQuarantineText(random.Next());
        const size_t place = random.Number(text.size() - 1);
        switch (random.Number(3)) {
            case 0:
                text.erase(place, 1);
                break;
            case 1:
                text.insert(place, 1, " 0:.bZ-x"[random.Number(7)]);
                break;
            case 2:
                text.resize(place);
                break;
            default:
                text[place] = static_cast<char>(random.Number(255));
                break;
        }
        QuarantineParts parts;
        if (ParseQuarantineText(text, parts).empty()) {
            ++taken;
            ASSERT_EQ(WriteQuarantineText(parts), text) << "turn " << turn;
        }
    }
    EXPECT_GT(taken, 0) << "a changed digit leaves a rule";
}

TEST(QuarantineText, TakesApartARuleWithPorts) {
    const QuarantineParts parts = Parse(
        "ip intruder addr 10.0.0.1 victim addr 10.0.0.2 udp src port 53 dst port 1025 "
        "expires 2026-11-12T15:00:00Z");
    EXPECT_EQ(4, parts.ipVersion);
    EXPECT_EQ("10.0.0.1", parts.intruder);
    EXPECT_EQ("10.0.0.2", parts.victim);
    EXPECT_EQ(IPPROTO_UDP, parts.protocol);
    EXPECT_EQ(53, parts.sourcePort);
    EXPECT_EQ(1025, parts.destinationPort);
    EXPECT_EQ(0U, parts.counter);
    EXPECT_EQ(kNovember, parts.expiration);
}

TEST(QuarantineText, TakesApartARuleWithIcmpFieldsAndACounter) {
    const QuarantineParts parts = Parse(
        "ipv6 victim addr 2001:db8::1 icmpv6 type 128 code 0 counter 100b "
        "expires 2026-11-12T15:00:00Z");
    EXPECT_EQ(6, parts.ipVersion);
    EXPECT_EQ("", parts.intruder);
    EXPECT_EQ("2001:db8::1", parts.victim);
    EXPECT_EQ(IPPROTO_ICMPV6, parts.protocol);
    EXPECT_EQ(128, parts.icmpType);
    EXPECT_EQ(0, parts.icmpCode);
    EXPECT_EQ(100U, parts.counter);
}

TEST(QuarantineText, TakesARuleOfAFamilyAndAnEndOnly) {
    QuarantineParts expected;
    expected.expiration = kNovember;
    EXPECT_EQ(expected, Parse("ip expires 2026-11-12T15:00:00Z"));
}

TEST(QuarantineText, WritesTimeInUtc) {
    EXPECT_EQ("2026-11-12T15:00:00Z", UtcText(kNovember));
}

class MalformedQuarantineText : public testing::TestWithParam<std::pair<const char*, const char*>> {
};

TEST_P(MalformedQuarantineText, IsRefusedWithItsReason) {
    const auto& [text, reason] = GetParam();
    QuarantineParts parts;
    parts.counter = 99;
    const QuarantineParts before = parts;
    EXPECT_EQ(ParseQuarantineText(text, parts), reason) << text;
    EXPECT_EQ(parts, before);
}

#define TIME " expires 2026-11-12T15:00:00Z"

INSTANTIATE_TEST_SUITE_P(
    Texts, MalformedQuarantineText,
    testing::Values(
        std::pair{"", "the line begins with \"\" instead of \"ip\" or \"ipv6\""},
        std::pair{" ip" TIME, "the line begins with \"\" instead of \"ip\" or \"ipv6\""},
        std::pair{"IP" TIME, "the line begins with \"IP\" instead of \"ip\" or \"ipv6\""},
        std::pair{"ipv4" TIME, "the line begins with \"ipv4\" instead of \"ip\" or \"ipv6\""},
        std::pair{"ip", "\"expires\" is expected where the line has no word"},
        std::pair{"ip ", "\"expires\" is expected where the line has no word"},
        std::pair{"ip  expires 2026-11-12T15:00:00Z",
                  "\"expires\" is expected where the line has no word"},
        std::pair{"ip intruder 10.0.0.1" TIME,
                  "\"addr\" is expected where the line has \"10.0.0.1\""},
        std::pair{"ip intruder addr" TIME, "\"expires\" is no IPv4 address in its shortest form"},
        std::pair{"ip intruder addr 10.0.0.256" TIME,
                  "\"10.0.0.256\" is no IPv4 address in its shortest form"},
        std::pair{"ip intruder addr 2001:db8::1" TIME,
                  "\"2001:db8::1\" is no IPv4 address in its shortest form"},
        std::pair{"ipv6 victim addr 10.0.0.1" TIME,
                  "\"10.0.0.1\" is no IPv6 address in its shortest form"},
        std::pair{"ipv6 victim addr 2001:DB8::1" TIME,
                  "\"2001:DB8::1\" is no IPv6 address in its shortest form"},
        std::pair{"ipv6 victim addr 2001:db8:0::1" TIME,
                  "\"2001:db8:0::1\" is no IPv6 address in its shortest form"},
        std::pair{"ip victim addr 10.0.0.2 intruder addr 10.0.0.1" TIME,
                  "\"expires\" is expected where the line has \"intruder\""},
        std::pair{"ip intruder addr 10.0.0.1 intruder addr 10.0.0.1" TIME,
                  "\"expires\" is expected where the line has \"intruder\""},
        std::pair{"ip tcp" TIME, "\"src\" is expected where the line has \"expires\""},
        std::pair{"ip tcp src port 1" TIME, "\"dst\" is expected where the line has \"expires\""},
        std::pair{"ip tcp dst port 1 src port 1" TIME,
                  "\"src\" is expected where the line has \"dst\""},
        std::pair{"ip tcp src port 65536 dst port 1" TIME, "\"65536\" is no port"},
        std::pair{"ip udp src port 1 dst port -1" TIME, "\"-1\" is no port"},
        std::pair{"ip udp src port 01 dst port 1" TIME, "\"01\" is no port"},
        std::pair{"ip udp src port +1 dst port 1" TIME, "\"+1\" is no port"},
        std::pair{"ip udp src port  dst port 1" TIME, "\"\" is no port"},
        std::pair{"ip icmpv6" TIME, "\"icmpv6\" does not go with IPv4"},
        std::pair{"ipv6 icmp" TIME, "\"icmp\" does not go with IPv6"},
        std::pair{"ip icmp type 256" TIME, "\"256\" is no type"},
        std::pair{"ip icmp code 65535" TIME, "\"65535\" is no code"},
        std::pair{"ip icmp code 1 type 1" TIME,
                  "\"expires\" is expected where the line has \"type\""},
        std::pair{"ip proto" TIME, "\"expires\" is no protocol number"},
        std::pair{"ip proto 0" TIME, "protocol \"0\" is never written by its number"},
        std::pair{"ip proto 6" TIME, "protocol \"6\" is never written by its number"},
        std::pair{"ip proto 17" TIME, "protocol \"17\" is never written by its number"},
        std::pair{"ip proto 1" TIME, "protocol \"1\" is never written by its number"},
        std::pair{"ipv6 proto 58" TIME, "protocol \"58\" is never written by its number"},
        std::pair{"ip proto 256" TIME, "\"256\" is no protocol number"},
        std::pair{"ip proto 47b" TIME, "\"47b\" is no protocol number"},
        std::pair{"ip counter 5" TIME, "\"5\" is no counter"},
        std::pair{"ip counter 5 b" TIME, "\"5\" is no counter"},
        std::pair{"ip counter b" TIME, "\"b\" is no counter"},
        std::pair{"ip counter 0b" TIME, "\"0b\" is no counter"},
        std::pair{"ip counter 4294967296b" TIME, "\"4294967296b\" is no counter"},
        std::pair{"ip counter", "\"\" is no counter"}, std::pair{"ip expires", "\"\" is no time"},
        std::pair{"ip expires soon", "\"soon\" is no time"},
        std::pair{"ip expires 2026-11-12T15:00:00", "\"2026-11-12T15:00:00\" is no time"},
        std::pair{"ip expires 2026-11-12T15:00:00z", "\"2026-11-12T15:00:00z\" is no time"},
        std::pair{"ip expires 2026-11-12", "\"2026-11-12\" is no time"},
        std::pair{"ip expires 2026-02-29T15:00:00Z", "\"2026-02-29T15:00:00Z\" is no time"},
        std::pair{"ip expires 2026-11-12T24:00:00Z", "\"2026-11-12T24:00:00Z\" is no time"},
        std::pair{"ip expires 2026-11-12T15:00:60Z", "\"2026-11-12T15:00:60Z\" is no time"},
        std::pair{"ip expires 2026-1-12T15:00:00Z", "\"2026-1-12T15:00:00Z\" is no time"},
        std::pair{"ip expires 99999999999-01-01T00:00:00Z",
                  "\"99999999999-01-01T00:00:00Z\" is no time"},
        std::pair{"ip expires 1970-01-01T00:00:00Z", "the expiration time is zero"},
        std::pair{"ip" TIME " ", "more follows the expiration time"},
        std::pair{"ip" TIME " tcp", "more follows the expiration time"},
        std::pair{"ip" TIME "\n", "\"2026-11-12T15:00:00Z\\x0A\" is no time"}));

TEST(QuarantineText, RefusesATextWithANul) {
    using namespace std::string_literals;
    QuarantineParts parts;
    EXPECT_THAT(ParseQuarantineText("ip intruder addr 10.0.0.1\0" TIME ""s, parts),
                HasSubstr("is no IPv4 address"));
    EXPECT_THAT(ParseQuarantineText("ip" TIME "\0"s, parts), HasSubstr("is no time"));
}

}  // namespace
}  // namespace tarnctl
