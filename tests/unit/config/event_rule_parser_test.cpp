#include "config/event_rule_parser.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct KeyResult {
    bool parsed;
    int kind;
    uint32_t id;
    bool operator==(const KeyResult&) const = default;
};

void PrintTo(const KeyResult& result, std::ostream* out) {
    *out << "{" << result.parsed << ", kind " << result.kind << ", id " << result.id << "}";
}

KeyResult Key(const char* name) {
    KeyResult result = {false, -1, 99};
    result.parsed = ParseEventKey(name, &result.kind, &result.id);
    return result;
}

TEST(ParseEventKey, KnowsTheSixKeys) {
    EXPECT_EQ((KeyResult{true, 1, 7}), Key("se.7.severity"));
    EXPECT_EQ((KeyResult{true, 2, 7}), Key("se.7.rule"));
    EXPECT_EQ((KeyResult{true, 3, 7}), Key("se.7.msg"));
    EXPECT_EQ((KeyResult{true, 4, 7}), Key("se.7.user.response"));
    EXPECT_EQ((KeyResult{true, 5, 7}), Key("se.7.response"));
    EXPECT_EQ((KeyResult{true, 6, 7}), Key("se.7.quarantine.rule"));
}

TEST(ParseEventKey, DoesNotTakeAQuarantineRuleForARule) {
    EXPECT_EQ(kEventKeyQuarantineRule, Key("se.12.quarantine.rule").kind);
}

TEST(ParseEventKey, DoesNotTakeAUserResponseForAResponse) {
    EXPECT_EQ(kEventKeyUserResponse, Key("se.12.user.response").kind);
}

TEST(ParseEventKey, LeavesNamesWithoutThePrefixToOthers) {
    EXPECT_EQ((KeyResult{true, 0, 0}), Key("tarn.log.level"));
    EXPECT_EQ((KeyResult{true, 0, 0}), Key("SE.7.msg"));
    EXPECT_EQ((KeyResult{true, 0, 0}), Key(""));
}

TEST(ParseEventKey, RefusesAnIdThatIsNoNumberOrZero) {
    EXPECT_FALSE(Key("se.0.msg").parsed);
    EXPECT_FALSE(Key("se.abc.msg").parsed);
    EXPECT_FALSE(Key("se..msg").parsed);
    EXPECT_FALSE(Key("se.4294967296.msg").parsed) << "32 bits of it are zero";
}

TEST(ParseEventKey, RefusesAKeyThatTakesTheDotOfThePrefix) {
    EXPECT_FALSE(Key("se.msg").parsed);
    EXPECT_FALSE(Key("se.severity.7").parsed);
}

TEST(ParseEventKey, RefusesAnUnknownKey) {
    EXPECT_EQ((KeyResult{false, 0, 0}), Key("se.7.colour"));
    EXPECT_EQ((KeyResult{false, 0, 0}), Key("se."));
}

TEST(ParseEventKey, KeepsAnIdAsThirtyTwoBits) {
    EXPECT_EQ(0xFFFFFFFFU, Key("se.4294967295.msg").id);
    EXPECT_EQ(0xFFFFFFFFU, Key("se.-1.msg").id);
    EXPECT_EQ(7U, Key("se.4294967303.msg").id);
}

TEST(ParseEventKey, FindsItsKeyAnywhereInTheName) {
    EXPECT_EQ((KeyResult{true, 3, 7}), Key("se.7.msg.text"));
    EXPECT_EQ((KeyResult{true, 3, 7}), Key("se.7x.msg"));
    EXPECT_EQ((KeyResult{true, 3, 10}), Key("se.010.msg")) << "the base is ten";
    EXPECT_EQ((KeyResult{true, 1, 7}), Key("se.7.msg.severity")) << "the order of the keys decides";
}

uint32_t Severity(const char* value) {
    uint32_t severity = 99;
    EXPECT_TRUE(ParseSeverity(value, &severity));
    return severity;
}

TEST(ParseSeverity, KnowsThreeWordsInAnyCase) {
    EXPECT_EQ(1U, Severity("low"));
    EXPECT_EQ(2U, Severity("MEDIUM"));
    EXPECT_EQ(3U, Severity("High"));
}

TEST(ParseSeverity, KeepsToTheBeginningOfALongerWord) {
    EXPECT_EQ(2U, Severity("mediumish"));
}

TEST(ParseSeverity, YieldsNoneForAnotherWord) {
    EXPECT_EQ(0U, Severity("urgent"));
    EXPECT_EQ(0U, Severity("medi"));
}

TEST(ParseSeverity, FailsForAnEmptyValue) {
    uint32_t severity = 99;
    EXPECT_FALSE(ParseSeverity("", &severity));
}

uint32_t UserResponse(const char* value) {
    uint32_t flags = 99;
    EXPECT_TRUE(ParseUserResponse(value, &flags));
    return flags;
}

TEST(ParseUserResponse, FailsWithNoFlagsForAnEmptyValue) {
    uint32_t flags = 99;
    EXPECT_FALSE(ParseUserResponse("", &flags));
    EXPECT_EQ(0U, flags);
}

TEST(ParseUserResponse, SetsOneScopeBitBesideEvidence) {
    EXPECT_EQ(0x41U, UserResponse("LOGEVIDENCE"));
    EXPECT_EQ(0x09U, UserResponse("LOGEVIDENCE Connection"));
    EXPECT_EQ(0x11U, UserResponse("LOGEVIDENCE Interface"));
    EXPECT_EQ(0x21U, UserResponse("LOGEVIDENCE AllInterfaces"));
}

TEST(ParseUserResponse, PrefersConnectionToAnyInterface) {
    EXPECT_EQ(0x09U, UserResponse("LOGEVIDENCE Interface AllInterfaces Connection"));
}

TEST(ParseUserResponse, JoinsEvidenceScopeAndRawPacket) {
    EXPECT_EQ(0x23U, UserResponse("LOGEVIDENCE WithRaw AllInterfaces"));
    EXPECT_EQ(0x43U, UserResponse("DISPLAY:WithRaw,LOGEVIDENCE"));
}

TEST(ParseUserResponse, IgnoresAScopeWithoutEvidence) {
    EXPECT_EQ(0x04U, UserResponse("Connection"));
    EXPECT_EQ(0x02U, UserResponse("WithRaw Connect"));
}

TEST(ParseUserResponse, RecognisesARawPacketAloneByTheLengthOfTheValue) {
    EXPECT_EQ(0x02U, UserResponse("WithRaw"));
    EXPECT_EQ(0x02U, UserResponse("DISPLAY:WithRaw")) << "15 characters";
    EXPECT_EQ(0x06U, UserResponse("DISPLAY:WithRaw,")) << "16 characters";
}

TEST(ParseUserResponse, FallsBackToNoRawPacket) {
    EXPECT_EQ(0x04U, UserResponse("DISPLAY:WithoutRaw"));
    EXPECT_EQ(0x04U, UserResponse("x"));
    EXPECT_EQ(0x04U, UserResponse("logevidence withraw")) << "the case of the words counts";
}

struct Response {
    bool parsed;
    uint32_t flags;
    bool operator==(const Response&) const = default;
};

Response ResponseOf(const char* value, uint32_t flags = 0) {
    const bool parsed = ParseResponse(value, &flags);
    return {parsed, flags};
}

TEST(ParseResponse, MakesTheFlagsZeroForNone) {
    EXPECT_EQ((Response{true, 0}), ResponseOf("none", 0x0C));
}

TEST(ParseResponse, FailsForAnEmptyValue) {
    EXPECT_EQ((Response{false, 0}), ResponseOf(""));
}

TEST(ParseResponse, KeepsBothBitsForEveryWord) {
    for (const char* word : {"quarantine-traffic", "quarantine-future-traffic",
                             "quarantine-icmp-traffic", "quarantine-future-icmp-traffic"}) {
        EXPECT_EQ((Response{true, 0x0C}), ResponseOf(word)) << word;
    }
}

TEST(ParseResponse, TakesAListWithBlanksAndATrailingComma) {
    EXPECT_EQ((Response{true, 0x0C}),
              ResponseOf("quarantine-traffic \t,\t quarantine-icmp-traffic"));
    EXPECT_EQ((Response{true, 0x0C}), ResponseOf("quarantine-traffic,"));
    EXPECT_EQ((Response{true, 0x0C}), ResponseOf("quarantine-traffic , "));
}

TEST(ParseResponse, FailsAtTheFirstWordThatIsNoneAndKeepsWhatItHas) {
    EXPECT_EQ((Response{false, 0x0C}), ResponseOf("quarantine-traffic, block"));
    EXPECT_EQ((Response{false, 0}), ResponseOf("block, quarantine-traffic"));
    EXPECT_EQ((Response{false, 0}), ResponseOf("none, quarantine-traffic"));
    EXPECT_EQ((Response{false, 0}), ResponseOf(",quarantine-traffic"));
}

TEST(ParseResponse, FailsWithoutAComma) {
    EXPECT_EQ((Response{false, 0x0C}), ResponseOf("quarantine-traffic quarantine-traffic"));
    EXPECT_EQ((Response{false, 0x0C}), ResponseOf("quarantine-traffics"));
}

struct Rule {
    bool parsed;
    uint32_t flags;
    uint64_t duration = 0;
    uint32_t rateLimit = 0;
    bool operator==(const Rule&) const = default;
};

void PrintTo(const Rule& rule, std::ostream* out) {
    *out << "{" << rule.parsed << ", 0x" << std::hex << rule.flags << std::dec << ", "
         << rule.duration << ", " << rule.rateLimit << "}";
}

Rule RuleOf(const char* value) {
    BlockRule rule;
    const bool parsed = ParseBlockRule(value, &rule);
    return {parsed, rule.flags, rule.duration, rule.rateLimit};
}

TEST(ParseBlockRule, KnowsEveryFlagWord) {
    EXPECT_EQ((Rule{true, 0x001}), RuleOf("quarantine-intruder-address"));
    EXPECT_EQ((Rule{true, 0x040}), RuleOf("quarantine-intruder-subnet"));
    EXPECT_EQ((Rule{true, 0x002}), RuleOf("quarantine-intruder-port"));
    EXPECT_EQ((Rule{true, 0x004}), RuleOf("quarantine-victim-address"));
    EXPECT_EQ((Rule{true, 0x080}), RuleOf("quarantine-victim-subnet"));
    EXPECT_EQ((Rule{true, 0x008}), RuleOf("quarantine-victim-port"));
    EXPECT_EQ((Rule{true, 0x010}), RuleOf("quarantine-icmp-type"));
    EXPECT_EQ((Rule{true, 0x020}), RuleOf("quarantine-icmp-code"));
    EXPECT_EQ((Rule{true, 0}), RuleOf("quarantine-issue"));
    EXPECT_EQ((Rule{true, 0x009}), RuleOf("quarantine-worm"));
    EXPECT_EQ((Rule{true, 0x00C}), RuleOf("quarantine-trojan"));
    EXPECT_EQ((Rule{true, 0x005}), RuleOf("quarantine-intruder"));
    EXPECT_EQ((Rule{true, 0x101}), RuleOf("quarantine-ddos"));
}

TEST(ParseBlockRule, AddsUpTheFlagWords) {
    EXPECT_EQ((Rule{true, 0x011}),
              RuleOf("quarantine-intruder-address,quarantine-icmp-type , quarantine-issue"));
}

TEST(ParseBlockRule, KeepsPresetsReplacingWhatIsBeforeThem) {
    EXPECT_EQ((Rule{true, 0x009}), RuleOf("quarantine-intruder-port, quarantine-worm"));
    EXPECT_EQ((Rule{true, 0x00B}), RuleOf("quarantine-worm, quarantine-intruder-port"));
    EXPECT_EQ((Rule{true, 0x00C}), RuleOf("quarantine-intruder-port, quarantine-trojan"));
    EXPECT_EQ((Rule{true, 0x005}), RuleOf("quarantine-intruder-port, quarantine-intruder"));
    EXPECT_EQ((Rule{true, 0x101}), RuleOf("quarantine-intruder-port, quarantine-ddos"));
}

TEST(ParseBlockRule, ReadsDurationAndRateLimitWithBlanksAroundTheColon) {
    EXPECT_EQ((Rule{true, 0x101, 60, 10}), RuleOf("quarantine-ddos, duration: 60, ratelimit:10"));
    EXPECT_EQ((Rule{true, 0, 60, 10}), RuleOf("duration \t:\t 60 ,ratelimit : 10"));
}

TEST(ParseBlockRule, TakesATabAfterANumber) {
    EXPECT_EQ((Rule{true, 0, 60, 10}), RuleOf("duration:60\t,ratelimit:10\t"));
    EXPECT_EQ((Rule{true, 0, 60, 10}), RuleOf("duration:60 ,ratelimit:10 "));
}

TEST(ParseBlockRule, ReadsNumbersInBaseTen) {
    EXPECT_EQ((Rule{true, 0, 10, 10}), RuleOf("duration:010,ratelimit:010"));
    EXPECT_EQ((Rule{false, 0, 0, 0}), RuleOf("duration:0x10"));
    EXPECT_EQ((Rule{false, 0, 0, 0}), RuleOf("ratelimit:0x10"));
}

TEST(ParseBlockRule, KeepsADurationInSixtyFourBitsAndCutsARateLimitToThirtyTwo) {
    EXPECT_EQ((Rule{true, 0, 4294967297U, 1}), RuleOf("duration:4294967297,ratelimit:4294967297"));
}

TEST(ParseBlockRule, StoresANumberBeforeItFailsAtWhatFollows) {
    EXPECT_EQ((Rule{false, 0, 60}), RuleOf("duration:60s"));
    EXPECT_EQ((Rule{false, 0, 0, 7}), RuleOf("ratelimit:7.5"));
}

TEST(ParseBlockRule, FailsForANumberThatIsMissing) {
    EXPECT_EQ((Rule{false, 0}), RuleOf("duration"));
    EXPECT_EQ((Rule{false, 0}), RuleOf("duration 60"));
    EXPECT_EQ((Rule{false, 0}), RuleOf("duration:"));
    EXPECT_EQ((Rule{false, 0}), RuleOf("duration:  "));
    EXPECT_EQ((Rule{false, 0}), RuleOf("duration:long"));
}

TEST(ParseBlockRule, KeepsTheFailingNumberFromTouchingTheOther) {
    EXPECT_EQ((Rule{false, 0, 0, 3}), RuleOf("ratelimit:3, ratelimit"));
    EXPECT_EQ((Rule{true, 0, 0, 3}), RuleOf("duration:,ratelimit:3")) << "no digits read as 0";
}

TEST(ParseBlockRule, KeepsTheWordsBeforeOneThatDoesNotFit) {
    EXPECT_EQ((Rule{false, 0x008, 5}), RuleOf("quarantine-victim-port, duration:5, block"));
    EXPECT_EQ((Rule{false, 0x005}), RuleOf("quarantine-intruder-foo"));
    EXPECT_EQ((Rule{false, 0}), RuleOf("block"));
}

TEST(ParseBlockRule, AcceptsATrailingComma) {
    EXPECT_EQ((Rule{true, 0x009}), RuleOf("quarantine-worm,"));
    EXPECT_EQ((Rule{false, 0x009}), RuleOf("quarantine-worm,,"));
}

TEST(ParseBlockRule, LeavesTheRuleAsItWasForAnEmptyValue) {
    BlockRule rule = {1, 2, 3};
    EXPECT_FALSE(ParseBlockRule("", &rule));
    EXPECT_EQ(1U, rule.flags);
    EXPECT_EQ(2U, rule.duration);
    EXPECT_EQ(3U, rule.rateLimit);
}

TEST(ParseBlockRule, ClearsTheRuleBeforeItReads) {
    BlockRule rule = {1, 2, 3};
    EXPECT_FALSE(ParseBlockRule("block", &rule));
    EXPECT_EQ(0U, rule.flags);
    EXPECT_EQ(0U, rule.duration);
    EXPECT_EQ(0U, rule.rateLimit);
}

}  // namespace
