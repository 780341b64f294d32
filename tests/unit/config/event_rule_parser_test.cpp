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
    EXPECT_EQ(Key("se.7.severity"), (KeyResult{true, 1, 7}));
    EXPECT_EQ(Key("se.7.rule"), (KeyResult{true, 2, 7}));
    EXPECT_EQ(Key("se.7.msg"), (KeyResult{true, 3, 7}));
    EXPECT_EQ(Key("se.7.user.response"), (KeyResult{true, 4, 7}));
    EXPECT_EQ(Key("se.7.response"), (KeyResult{true, 5, 7}));
    EXPECT_EQ(Key("se.7.quarantine.rule"), (KeyResult{true, 6, 7}));
}

TEST(ParseEventKey, DoesNotTakeAQuarantineRuleForARule) {
    EXPECT_EQ(Key("se.12.quarantine.rule").kind, kEventKeyQuarantineRule);
}

TEST(ParseEventKey, DoesNotTakeAUserResponseForAResponse) {
    EXPECT_EQ(Key("se.12.user.response").kind, kEventKeyUserResponse);
}

TEST(ParseEventKey, LeavesNamesWithoutThePrefixToOthers) {
    EXPECT_EQ(Key("tarn.log.level"), (KeyResult{true, 0, 0}));
    EXPECT_EQ(Key("SE.7.msg"), (KeyResult{true, 0, 0}));
    EXPECT_EQ(Key(""), (KeyResult{true, 0, 0}));
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
    EXPECT_EQ(Key("se.7.colour"), (KeyResult{false, 0, 0}));
    EXPECT_EQ(Key("se."), (KeyResult{false, 0, 0}));
}

TEST(ParseEventKey, KeepsAnIdAsThirtyTwoBits) {
    EXPECT_EQ(Key("se.4294967295.msg").id, 0xFFFFFFFFU);
    EXPECT_EQ(Key("se.-1.msg").id, 0xFFFFFFFFU);
    EXPECT_EQ(Key("se.4294967303.msg").id, 7U);
}

TEST(ParseEventKey, FindsItsKeyAnywhereInTheName) {
    EXPECT_EQ(Key("se.7.msg.text"), (KeyResult{true, 3, 7}));
    EXPECT_EQ(Key("se.7x.msg"), (KeyResult{true, 3, 7}));
    EXPECT_EQ(Key("se.7.msg.severity"), (KeyResult{true, 1, 7})) << "the order of the keys decides";
}

uint32_t Severity(const char* value) {
    uint32_t severity = 99;
    EXPECT_TRUE(ParseSeverity(value, &severity));
    return severity;
}

TEST(ParseSeverity, KnowsThreeWordsInAnyCase) {
    EXPECT_EQ(Severity("low"), 1U);
    EXPECT_EQ(Severity("MEDIUM"), 2U);
    EXPECT_EQ(Severity("High"), 3U);
}

TEST(ParseSeverity, KeepsToTheBeginningOfALongerWord) {
    EXPECT_EQ(Severity("mediumish"), 2U);
}

TEST(ParseSeverity, YieldsNoneForAnotherWord) {
    EXPECT_EQ(Severity("urgent"), 0U);
    EXPECT_EQ(Severity("medi"), 0U);
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
    EXPECT_EQ(flags, 0U);
}

TEST(ParseUserResponse, SetsOneScopeBitBesideEvidence) {
    EXPECT_EQ(UserResponse("LOGEVIDENCE"), 0x41U);
    EXPECT_EQ(UserResponse("LOGEVIDENCE Connection"), 0x09U);
    EXPECT_EQ(UserResponse("LOGEVIDENCE Interface"), 0x11U);
    EXPECT_EQ(UserResponse("LOGEVIDENCE AllInterfaces"), 0x21U);
}

TEST(ParseUserResponse, PrefersConnectionToAnyInterface) {
    EXPECT_EQ(UserResponse("LOGEVIDENCE Interface AllInterfaces Connection"), 0x09U);
}

TEST(ParseUserResponse, JoinsEvidenceScopeAndRawPacket) {
    EXPECT_EQ(UserResponse("LOGEVIDENCE WithRaw AllInterfaces"), 0x23U);
    EXPECT_EQ(UserResponse("DISPLAY:WithRaw,LOGEVIDENCE"), 0x43U);
}

TEST(ParseUserResponse, IgnoresAScopeWithoutEvidence) {
    EXPECT_EQ(UserResponse("Connection"), 0x04U);
    EXPECT_EQ(UserResponse("WithRaw Connect"), 0x02U);
}

TEST(ParseUserResponse, TellsARawPacketAloneByTheLengthOfTheValue) {
    EXPECT_EQ(UserResponse("WithRaw"), 0x02U);
    EXPECT_EQ(UserResponse("DISPLAY:WithRaw"), 0x02U) << "15 characters";
    EXPECT_EQ(UserResponse("DISPLAY:WithRaw,"), 0x06U) << "16 characters";
}

TEST(ParseUserResponse, FallsBackToNoRawPacket) {
    EXPECT_EQ(UserResponse("DISPLAY:WithoutRaw"), 0x04U);
    EXPECT_EQ(UserResponse("x"), 0x04U);
    EXPECT_EQ(UserResponse("logevidence withraw"), 0x04U) << "the case of the words counts";
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
    EXPECT_EQ(ResponseOf("none", 0x0C), (Response{true, 0}));
}

TEST(ParseResponse, FailsForAnEmptyValue) {
    EXPECT_EQ(ResponseOf(""), (Response{false, 0}));
}

TEST(ParseResponse, KeepsBothBitsForEveryWord) {
    for (const char* word : {"quarantine-traffic", "quarantine-future-traffic",
                             "quarantine-icmp-traffic", "quarantine-future-icmp-traffic"}) {
        EXPECT_EQ(ResponseOf(word), (Response{true, 0x0C})) << word;
    }
}

TEST(ParseResponse, TakesAListWithBlanksAndATrailingComma) {
    EXPECT_EQ(ResponseOf("quarantine-traffic \t,\t quarantine-icmp-traffic"),
              (Response{true, 0x0C}));
    EXPECT_EQ(ResponseOf("quarantine-traffic,"), (Response{true, 0x0C}));
    EXPECT_EQ(ResponseOf("quarantine-traffic , "), (Response{true, 0x0C}));
}

TEST(ParseResponse, FailsAtTheFirstWordThatIsNoneAndKeepsWhatItHas) {
    EXPECT_EQ(ResponseOf("quarantine-traffic, block"), (Response{false, 0x0C}));
    EXPECT_EQ(ResponseOf("block, quarantine-traffic"), (Response{false, 0}));
    EXPECT_EQ(ResponseOf("none, quarantine-traffic"), (Response{false, 0}));
    EXPECT_EQ(ResponseOf(",quarantine-traffic"), (Response{false, 0}));
}

TEST(ParseResponse, FailsWithoutAComma) {
    EXPECT_EQ(ResponseOf("quarantine-traffic quarantine-traffic"), (Response{false, 0x0C}));
    EXPECT_EQ(ResponseOf("quarantine-traffics"), (Response{false, 0x0C}));
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
    EXPECT_EQ(RuleOf("quarantine-intruder-address"), (Rule{true, 0x001}));
    EXPECT_EQ(RuleOf("quarantine-intruder-subnet"), (Rule{true, 0x040}));
    EXPECT_EQ(RuleOf("quarantine-intruder-port"), (Rule{true, 0x002}));
    EXPECT_EQ(RuleOf("quarantine-victim-address"), (Rule{true, 0x004}));
    EXPECT_EQ(RuleOf("quarantine-victim-subnet"), (Rule{true, 0x080}));
    EXPECT_EQ(RuleOf("quarantine-victim-port"), (Rule{true, 0x008}));
    EXPECT_EQ(RuleOf("quarantine-icmp-type"), (Rule{true, 0x010}));
    EXPECT_EQ(RuleOf("quarantine-icmp-code"), (Rule{true, 0x020}));
    EXPECT_EQ(RuleOf("quarantine-issue"), (Rule{true, 0}));
    EXPECT_EQ(RuleOf("quarantine-worm"), (Rule{true, 0x009}));
    EXPECT_EQ(RuleOf("quarantine-trojan"), (Rule{true, 0x00C}));
    EXPECT_EQ(RuleOf("quarantine-intruder"), (Rule{true, 0x005}));
    EXPECT_EQ(RuleOf("quarantine-ddos"), (Rule{true, 0x101}));
}

TEST(ParseBlockRule, AddsUpTheFlagWords) {
    EXPECT_EQ(RuleOf("quarantine-intruder-address,quarantine-icmp-type , quarantine-issue"),
              (Rule{true, 0x011}));
}

TEST(ParseBlockRule, KeepsPresetsReplacingWhatStandsBeforeThem) {
    EXPECT_EQ(RuleOf("quarantine-intruder-port, quarantine-worm"), (Rule{true, 0x009}));
    EXPECT_EQ(RuleOf("quarantine-worm, quarantine-intruder-port"), (Rule{true, 0x00B}));
}

TEST(ParseBlockRule, ReadsDurationAndRateLimitWithBlanksAroundTheColon) {
    EXPECT_EQ(RuleOf("quarantine-ddos, duration: 60, ratelimit:10"), (Rule{true, 0x101, 60, 10}));
    EXPECT_EQ(RuleOf("duration \t:\t 60 ,ratelimit : 10"), (Rule{true, 0, 60, 10}));
}

TEST(ParseBlockRule, KeepsADurationInSixtyFourBitsAndCutsARateLimitToThirtyTwo) {
    EXPECT_EQ(RuleOf("duration:4294967297,ratelimit:4294967297"), (Rule{true, 0, 4294967297U, 1}));
}

TEST(ParseBlockRule, StoresANumberBeforeItFailsAtWhatFollows) {
    EXPECT_EQ(RuleOf("duration:60s"), (Rule{false, 0, 60}));
    EXPECT_EQ(RuleOf("ratelimit:7.5"), (Rule{false, 0, 0, 7}));
}

TEST(ParseBlockRule, FailsForANumberThatIsMissing) {
    EXPECT_EQ(RuleOf("duration"), (Rule{false, 0}));
    EXPECT_EQ(RuleOf("duration 60"), (Rule{false, 0}));
    EXPECT_EQ(RuleOf("duration:"), (Rule{false, 0}));
    EXPECT_EQ(RuleOf("duration:  "), (Rule{false, 0}));
    EXPECT_EQ(RuleOf("duration:long"), (Rule{false, 0}));
}

TEST(ParseBlockRule, KeepsTheFailingNumberFromTouchingTheOther) {
    EXPECT_EQ(RuleOf("ratelimit:3, ratelimit"), (Rule{false, 0, 0, 3}));
    EXPECT_EQ(RuleOf("duration:,ratelimit:3"), (Rule{true, 0, 0, 3})) << "no digits read as 0";
}

TEST(ParseBlockRule, KeepsTheWordsBeforeOneThatDoesNotFit) {
    EXPECT_EQ(RuleOf("quarantine-victim-port, duration:5, block"), (Rule{false, 0x008, 5}));
    EXPECT_EQ(RuleOf("quarantine-intruder-foo"), (Rule{false, 0x005}));
    EXPECT_EQ(RuleOf("block"), (Rule{false, 0}));
}

TEST(ParseBlockRule, AcceptsATrailingComma) {
    EXPECT_EQ(RuleOf("quarantine-worm,"), (Rule{true, 0x009}));
    EXPECT_EQ(RuleOf("quarantine-worm,,"), (Rule{false, 0x009}));
}

TEST(ParseBlockRule, LeavesTheRuleAsItWasForAnEmptyValue) {
    BlockRule rule = {1, 2, 3};
    EXPECT_FALSE(ParseBlockRule("", &rule));
    EXPECT_EQ(rule.flags, 1U);
    EXPECT_EQ(rule.duration, 2U);
    EXPECT_EQ(rule.rateLimit, 3U);
}

TEST(ParseBlockRule, ClearsTheRuleBeforeItReads) {
    BlockRule rule = {1, 2, 3};
    EXPECT_FALSE(ParseBlockRule("block", &rule));
    EXPECT_EQ(rule.flags, 0U);
    EXPECT_EQ(rule.duration, 0U);
    EXPECT_EQ(rule.rateLimit, 0U);
}

}  // namespace
