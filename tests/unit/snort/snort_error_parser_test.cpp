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
    EXPECT_EQ(0, parsed.result);
    EXPECT_EQ(2, parsed.kind);
    EXPECT_EQ(12, parsed.lineNumber);
    EXPECT_EQ("unknown option\n", parsed.reason);
}

TEST(ParseSnortErrorInRules, NeedsNoParentheses) {
    for (const char* const rest : {"", "\n", ": no number\n", "("}) {
        const Parsed parsed = Parse(kRules + rest);
        EXPECT_EQ(2, parsed.kind) << rest;
        EXPECT_EQ(0, parsed.lineNumber) << rest;
        EXPECT_EQ("", parsed.reason) << rest;
    }
}

TEST(ParseSnortErrorInRules, ReadsTheNumberInBaseTenAsFarAsItGoes) {
    EXPECT_EQ(0, Parse(kRules + "(0x1F) a\n").lineNumber);
    EXPECT_EQ(10, Parse(kRules + "(010) a\n").lineNumber);
    EXPECT_EQ(7, Parse(kRules + "(7th) a\n").lineNumber);
    EXPECT_EQ(-3, Parse(kRules + "(-3) a\n").lineNumber);
    EXPECT_EQ(0, Parse(kRules + "(x) a\n").lineNumber);
}

TEST(ParseSnortErrorInRules, KeepsTheLower32BitsOfTheNumber) {
    EXPECT_EQ(5, Parse(kRules + "(4294967301) a\n").lineNumber);
    EXPECT_EQ(-2147483648L, Parse(kRules + "(2147483648) a\n").lineNumber);
}

TEST(ParseSnortErrorInRules, KeepsCuttingTheTextAtItsNextOpeningParenthesis) {
    EXPECT_EQ("bad option ", Parse(kRules + "(12) bad option (see manual)\n").reason);
}

TEST(ParseSnortErrorInRules, KeepsOnlyWhatFollowsTheLastClosingParenthesis) {
    EXPECT_EQ("the rest\n", Parse(kRules + "(12) a) b) the rest\n").reason);
    EXPECT_EQ("", Parse(kRules + "(12) the rest)\n").reason);
}

TEST(ParseSnortErrorInRules, TakesNothingBehindAParenthesisThatEndsTheText) {
    EXPECT_EQ("", Parse(kRules + "(12)").reason);
    EXPECT_EQ("bad", Parse(kRules + "(12) bad)").reason);
    EXPECT_EQ("", Parse(kRules + "(12)(13) bad\n").reason);
}

TEST(ParseSnortErrorInRules, DropsTheFirstCharacterOfThePartWhateverItIs) {
    EXPECT_EQ("nknown\n", Parse(kRules + "(12)unknown\n").reason);
}

TEST(ParseSnortErrorInRules, KeepsThrowingWhenAParenthesisFollowsTheOneAfterTheNumber) {
    EXPECT_THROW(Parse(kRules + "(12)) text\n"), std::out_of_range);
    EXPECT_THROW(Parse(kRules + "(12) a)) text\n"), std::out_of_range);
}

TEST(ParseSnortErrorInConfiguration, YieldsTheWholeLine) {
    const Parsed parsed = Parse(kConfiguration + "(3) bad");
    EXPECT_EQ(1, parsed.kind);
    EXPECT_EQ(0, parsed.lineNumber);
    EXPECT_EQ(kConfiguration + "(3) bad", parsed.reason);
}

TEST(ParseSnortErrorElsewhere, YieldsTheWholeLine) {
    for (const std::string line : {"ERROR: Can't start DAQ (-1)!\n", "ERROR:\n", "anything",
                                   "ERROR: /etc/snort/rules/snort.rule(1) short\n", "",
                                   "see ERROR: /etc/snort/rules/snort.rules(1) not first\n",
                                   " ERROR: /etc/snort/qor-snort.conf(1) not first\n"}) {
        const Parsed parsed = Parse(line);
        EXPECT_EQ(0, parsed.result);
        EXPECT_EQ(0, parsed.kind) << line;
        EXPECT_EQ(0, parsed.lineNumber) << line;
        EXPECT_EQ(parsed.reason, line);
    }
}

TEST(ParseSnortErrorReason, IsCutToTheBuffer) {
    const std::string text(600, 'x');
    EXPECT_EQ(Parse("ERROR: " + text).reason, ("ERROR: " + text).substr(0, 255));
    EXPECT_EQ(Parse(kRules + "(1) " + text).reason, text.substr(0, 255));
    EXPECT_EQ("xxx", Parse(kRules + "(1) " + text, 4).reason);
    EXPECT_EQ("", Parse(kRules + "(1) " + text, 1).reason);
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
    EXPECT_EQ('#', reason[0]);
}

}  // namespace
