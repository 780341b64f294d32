#include "tarnctl/check/check_rules.h"

#include <gmock/gmock.h>

#include "unit/tarnctl/check/check_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using CheckRulesOption = CheckFixture;

TEST_F(CheckRulesOption, CannotCheckWhatCannotBeRead) {
    options.rules = {dir.File("missing")};
    EXPECT_EQ(2, Run());
    EXPECT_THAT(err.str(), HasSubstr("missing: No such file or directory"));
}

TEST_F(CheckRulesOption, CannotCheckWhatAnIncludeDoesNotFind) {
    Events(GoodEntry(7));
    options.rules = {dir.Write("local.rules",
                               "alert tcp any any -> any any (msg:\"a\"; sid:7;)\n"
                               "include gone.rules\n")};
    EXPECT_EQ(2, Run());
    EXPECT_THAT(err.str(), HasSubstr("local.rules:2: the included file gone.rules is not there"));
}

TEST_F(CheckRulesOption, NamesSignaturesWithoutAnEntryAndEntriesWithoutASignature) {
    Events(GoodEntry(7) + GoodEntry(8));
    options.rules = {dir.Write("local.rules",
                               "alert tcp any any -> any any (msg:\"a\"; sid:7;)\n"
                               "alert tcp any any -> any any (msg:\"b\"; sid:9;)\n"
                               "# alert tcp any any -> any any (msg:\"c\"; sid:10;)\n")};
    EXPECT_EQ(1, Run());
    EXPECT_THAT(FoundIn("local.rules"), ElementsAre(FoundPlace{"rule-without-entry", 2, 1}));
    EXPECT_THAT(FoundIn("tarn_event.conf"), ElementsAre(FoundPlace{"entry-without-rule", 6, 4}));
}

TEST_F(CheckRulesOption, NamesAnIdThatTwoGeneratorsHave) {
    Events(GoodEntry(7));
    options.rules = {dir.Write("local.rules",
                               "alert tcp any any -> any any (msg:\"a\"; sid:7;)\n"
                               "alert tcp any any -> any any (msg:\"b\"; gid:116; sid:7;)\n")};
    EXPECT_EQ("id-under-two-generators", Only()["name"]);
}

TEST_F(CheckRulesOption, NamesASensorThatWritesOtherRecords) {
    Events(GoodEntry(7));
    options.rules = {
        dir.Write("local.rules", "alert tcp any any -> any any (msg:\"a\"; sid:7;)\n")};
    dir.Write("snort.lua", "unified2 = { limit = 128 }\n");
    EXPECT_EQ("record-kind", Only()["name"]);
}

TEST_F(CheckRulesOption, ShowsTheLineOfTheSensorsConfigurationOnce) {
    Events(GoodEntry(7));
    const std::string rules =
        dir.Write("local.rules", "alert tcp any any -> any any (msg:\"a\"; sid:7;)\n");
    const std::string lua = dir.Write("snort.lua", "ips = {}\n  unified2 = { limit = 128 }\n");
    options.rules = {lua, rules, (dir.Path() / "." / "snort.lua").string()};
    const auto finding = Only();
    EXPECT_EQ("record-kind", finding["name"]);
    EXPECT_EQ(2U, finding["line"]);
    EXPECT_EQ(3U, finding["column"]);
    EXPECT_EQ("  unified2 = { limit = 128 }", finding["text"]);
    EXPECT_EQ(26U, finding["length"]);
}

}  // namespace
