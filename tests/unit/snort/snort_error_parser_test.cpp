#include "snort/snort_error_parser.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>

namespace {

struct Parsed {
    int result = -1;
    int kind = -1;
    long lineNumber = -1;
    std::string reason;
};

// Parses into a buffer that held something else before.
Parsed Parse(const std::string& line, int size = 256) {
    std::array<char, 256> reason;
    reason.fill('#');
    Parsed parsed;
    parsed.result =
        ParseSnortError(line.c_str(), &parsed.kind, &parsed.lineNumber, reason.data(), &size);
    parsed.reason = reason.data();
    return parsed;
}

const std::string kRules = "ERROR: /etc/snort/rules/snort.rules";
const std::string kConfiguration = "ERROR: /etc/snort/qor-snort.conf";

TEST(ParseSnortErrorInRules, YieldsTheLineNumberAndTheReasonWithItsNewline) {
    const Parsed parsed = Parse(kRules + "(12) unknown option\n");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.kind, 2);
    EXPECT_EQ(parsed.lineNumber, 12);
    EXPECT_EQ(parsed.reason, "unknown option\n");
}

TEST(ParseSnortErrorInRules, NeedsNoParentheses) {
    for (const char* const rest : {"", "\n", ": no number\n", "("}) {
        const Parsed parsed = Parse(kRules + rest);
        EXPECT_EQ(parsed.kind, 2) << rest;
        EXPECT_EQ(parsed.lineNumber, 0) << rest;
        EXPECT_EQ(parsed.reason, "") << rest;
    }
}

TEST(ParseSnortErrorInRules, ReadsTheNumberInBaseTenAsFarAsItGoes) {
    EXPECT_EQ(Parse(kRules + "(0x1F) a\n").lineNumber, 0);
    EXPECT_EQ(Parse(kRules + "(010) a\n").lineNumber, 10);
    EXPECT_EQ(Parse(kRules + "(7th) a\n").lineNumber, 7);
    EXPECT_EQ(Parse(kRules + "(-3) a\n").lineNumber, -3);
    EXPECT_EQ(Parse(kRules + "(x) a\n").lineNumber, 0);
}

TEST(ParseSnortErrorInRules, KeepsTheLower32BitsOfTheNumber) {
    EXPECT_EQ(Parse(kRules + "(4294967301) a\n").lineNumber, 5);
    EXPECT_EQ(Parse(kRules + "(2147483648) a\n").lineNumber, -2147483648L);
}

TEST(ParseSnortErrorInRules, KeepsCuttingTheTextAtItsNextOpeningParenthesis) {
    EXPECT_EQ(Parse(kRules + "(12) bad option (see manual)\n").reason, "bad option ");
}

TEST(ParseSnortErrorInRules, KeepsOnlyWhatFollowsTheLastClosingParenthesis) {
    EXPECT_EQ(Parse(kRules + "(12) a) b) the rest\n").reason, "the rest\n");
    EXPECT_EQ(Parse(kRules + "(12) the rest)\n").reason, "");
}

TEST(ParseSnortErrorInRules, TakesNothingBehindAParenthesisThatEndsTheText) {
    EXPECT_EQ(Parse(kRules + "(12)").reason, "");
    EXPECT_EQ(Parse(kRules + "(12) bad)").reason, "bad");
    EXPECT_EQ(Parse(kRules + "(12)(13) bad\n").reason, "");
}

TEST(ParseSnortErrorInRules, DropsTheFirstCharacterOfThePartWhateverItIs) {
    EXPECT_EQ(Parse(kRules + "(12)unknown\n").reason, "nknown\n");
}

TEST(ParseSnortErrorInRules, KeepsThrowingWhenAParenthesisFollowsTheOneBehindTheNumber) {
    EXPECT_THROW(Parse(kRules + "(12)) text\n"), std::out_of_range);
    EXPECT_THROW(Parse(kRules + "(12) a)) text\n"), std::out_of_range);
}

TEST(ParseSnortErrorInConfiguration, YieldsTheWholeLine) {
    const Parsed parsed = Parse(kConfiguration + "(3) bad");
    EXPECT_EQ(parsed.kind, 1);
    EXPECT_EQ(parsed.lineNumber, 0);
    EXPECT_EQ(parsed.reason, kConfiguration + "(3) bad");
}

TEST(ParseSnortErrorElsewhere, YieldsTheWholeLine) {
    for (const std::string line : {"ERROR: Can't start DAQ (-1)!\n", "ERROR:\n", "anything",
                                   "ERROR: /etc/snort/rules/snort.rule(1) short\n", ""}) {
        const Parsed parsed = Parse(line);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.kind, 0) << line;
        EXPECT_EQ(parsed.lineNumber, 0) << line;
        EXPECT_EQ(parsed.reason, line);
    }
}

TEST(ParseSnortErrorReason, IsCutToTheBuffer) {
    const std::string text(600, 'x');
    EXPECT_EQ(Parse("ERROR: " + text).reason, ("ERROR: " + text).substr(0, 255));
    EXPECT_EQ(Parse(kRules + "(1) " + text).reason, text.substr(0, 255));
    EXPECT_EQ(Parse(kRules + "(1) " + text, 4).reason, "xxx");
    EXPECT_EQ(Parse(kRules + "(1) " + text, 1).reason, "");
}

TEST(ParseSnortErrorReason, IsClearedToItsLastByte) {
    std::array<char, 8> reason;
    reason.fill('#');
    int kind = 0;
    long lineNumber = 0;
    int size = 7;
    ParseSnortError("ab", &kind, &lineNumber, reason.data(), &size);
    EXPECT_EQ(std::string(reason.data(), reason.size()), std::string("ab\0\0\0\0\0#", 8));
}

TEST(ParseSnortErrorReason, LeavesABufferOfNoSizeAlone) {
    std::array<char, 1> reason{'#'};
    int kind = 0;
    long lineNumber = 0;
    int size = 0;
    ParseSnortError("ab", &kind, &lineNumber, reason.data(), &size);
    EXPECT_EQ(reason[0], '#');
}

}  // namespace
