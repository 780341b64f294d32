#include "tarnctl/import/event_entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace tarnctl {
namespace {

TEST(EventName, IsOneLineOfPrintableText) {
    EXPECT_EQ("a=b, c # d: \"e\"", EventName("a=b, c # d: \"e\""));
    EXPECT_EQ("two  lines", EventName("\ttwo\r\nlines \n"));
    EXPECT_EQ("a b", EventName(std::string("a\0b", 3)));
    EXPECT_EQ("", EventName(" \t"));
    EXPECT_EQ("", EventName(""));
}

TEST(EventName, KeepsUtf8AndReplacesWhatIsNone) {
    EXPECT_EQ(
        "Gr\xC3\xBC\xC3\x9F"
        "e \xE2\x82\xAC \xF0\x9F\x98\x80",
        EventName("Gr\xC3\xBC\xC3\x9F"
                  "e \xE2\x82\xAC \xF0\x9F\x98\x80"));
    EXPECT_EQ("a?b", EventName("a\xFC"
                               "b"));
    EXPECT_EQ("??", EventName("\xC0\x80"));
    EXPECT_EQ("???", EventName("\xED\xA0\x80"));
    EXPECT_EQ("???", EventName("\xE0\x9F\xBF"));
    EXPECT_EQ("????", EventName("\xF4\x90\x80\x80"));
    EXPECT_EQ("?", EventName("\xE2"));
    EXPECT_EQ("?x", EventName("\xE2x"));
}

TEST(EventName, EndsAtItsLimitBetweenCharacters) {
    EXPECT_EQ(std::string(kLongestName, 'x'), EventName(std::string(300, 'x')));
    EXPECT_EQ(std::string(254, 'x'), EventName(std::string(254, 'x') + "\xC3\xBC"));
    EXPECT_EQ(std::string(253, 'x') + "\xC3\xBC", EventName(std::string(253, 'x') + "\xC3\xBC"));
}

TEST(SeverityWord, FollowsThePriority) {
    EXPECT_EQ("high", SeverityWord(1));
    EXPECT_EQ("medium", SeverityWord(2));
    EXPECT_EQ("low", SeverityWord(3));
    EXPECT_EQ("low", SeverityWord(4));
    EXPECT_EQ("low", SeverityWord(0));
}

TEST(MakeEntry, NamesRuleFileAndLine) {
    RuleSet set;
    set.ReadText("/x/a.rules", "\nalert ( msg:\"A name\"; sid:7; classtype:attempted-recon; )\n");
    EXPECT_EQ(
        "\n"
        "# tarnctl import: 1:7 at /x/a.rules:2\n"
        "se.7.severity = medium\n"
        "se.7.msg = A name\n"
        "se.7.user.response = DISPLAY:WithoutRaw\n"
        "se.7.response = none\n",
        MakeEntry(set, set.Signatures()).text);
}

TEST(MakeEntry, TakesTheMostSevereOfThoseThatShareIt) {
    RuleSet set;
    set.ReadText("a",
                 "alert ( sid:7; ) alert ( gid:3; sid:7; priority:3; msg:\"three\"; )"
                 "alert ( gid:116; sid:7; priority:2; msg:\"decode\"; )\n");
    EXPECT_EQ(
        "\n"
        "# tarnctl import: 1:7 at a:1\n"
        "# tarnctl import: 3:7 at a:1\n"
        "# tarnctl import: 116:7 at a:1\n"
        "se.7.severity = medium\n"
        "se.7.msg = three\n"
        "se.7.user.response = DISPLAY:WithoutRaw\n"
        "se.7.response = none\n",
        MakeEntry(set, set.Signatures()).text);
}

TEST(MakeEntry, NamesASignatureWithoutAMessageByItsNumbers) {
    RuleSet set;
    set.ReadText("a\nb", "alert ( gid:116; sid:9; )\n");
    EXPECT_THAT(MakeEntry(set, set.Signatures()).text,
                testing::StartsWith("\n# tarnctl import: 116:9 at a b:1\nse.9.severity = low\n"
                                    "se.9.msg = Snort signature 116:9\n"));
}

}  // namespace
}  // namespace tarnctl
