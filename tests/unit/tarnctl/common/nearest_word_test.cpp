#include "tarnctl/common/nearest_word.h"

#include <gtest/gtest.h>

#include <vector>

namespace tarnctl {
namespace {

const std::vector<std::string> kCommands = {"crm", "messages", "packetlog", "replay", "secmgr"};

TEST(LettersApartCount, CountsEachKindOfSlipAsOne) {
    EXPECT_EQ(0U, LettersApart("severity", "severity"));
    EXPECT_EQ(1U, LettersApart("severty", "severity"));
    EXPECT_EQ(1U, LettersApart("severiity", "severity"));
    EXPECT_EQ(1U, LettersApart("sevarity", "severity"));
    EXPECT_EQ(1U, LettersApart("severiyt", "severity"));
    EXPECT_EQ(3U, LettersApart("", "crm"));
    EXPECT_EQ(3U, LettersApart("crm", ""));
}

TEST(LettersApartCount, SwapsOnlyNeighbours) {
    EXPECT_EQ(2U, LettersApart("abcd", "cbad"));
    EXPECT_EQ(1U, LettersApart("ab", "ba"));
}

TEST(LettersApartCount, TakesUpperAndLowerCaseAsTheSame) {
    EXPECT_EQ(0U, LettersApart("LogEvidence", "LOGEVIDENCE"));
    EXPECT_EQ(1U, LettersApart("BA", "ab"));
}

TEST(NearestWordOfAList, IsTheOneWithTheFewestSlips) {
    EXPECT_EQ("crm", NearestWord("crn", kCommands));
    EXPECT_EQ("replay", NearestWord("play", kCommands));
    EXPECT_EQ("packetlog", NearestWord("pakcetlogs", kCommands));
}

TEST(NearestWordOfAList, IsNothingForAWordThatIsFarFromAll) {
    EXPECT_EQ("", NearestWord("start", kCommands));
    EXPECT_EQ("", NearestWord("x", kCommands));
    EXPECT_EQ("", NearestWord("", kCommands));
    EXPECT_EQ("", NearestWord("cab", kCommands));
    EXPECT_EQ("", NearestWord("crm", {}));
}

TEST(NearestWordOfAList, TakesABeginningForTheWord) {
    EXPECT_EQ("messages", NearestWord("me", kCommands));
    EXPECT_EQ("packetlog", NearestWord("pack", kCommands));
    EXPECT_EQ("", NearestWord("m", kCommands));
}

TEST(NearestWordOfAList, PrefersTheLongerCommonBeginningThenTheFirst) {
    const std::vector<std::string> words = {"bat", "cab", "cat"};
    EXPECT_EQ("cab", NearestWord("cax", words));
    EXPECT_EQ("bat", NearestWord("xat", words));
}

TEST(Suggestion, NamesTheWordOrSaysNothing) {
    EXPECT_EQ(", did you mean 'crm'?", DidYouMean("crn", kCommands));
    EXPECT_EQ("", DidYouMean("start", kCommands));
}

}  // namespace
}  // namespace tarnctl
