#include "tarnctl/check/block_words.h"

#include <gtest/gtest.h>

namespace tarnctl {
namespace {

std::string AppliesText(uint32_t flags) {
    const Applies applies = AppliesTo(flags);
    return std::string(applies.toIcmp ? "icmp" : "-") + " " + (applies.toOthers ? "others" : "-");
}

TEST(AppliesTo, IsWhatThePolicyDecides) {
    EXPECT_EQ("- -", AppliesText(0));
    EXPECT_EQ("- -", AppliesText(kBlockIssue));
    EXPECT_EQ("icmp others", AppliesText(kBlockIntruderAddress));
    EXPECT_EQ("icmp others", AppliesText(kBlockVictimSubnet));
    EXPECT_EQ("- others", AppliesText(kBlockIntruderPort));
    EXPECT_EQ("- others", AppliesText(kBlockIntruderAddress | kBlockVictimPort));
    EXPECT_EQ("icmp -", AppliesText(kBlockIcmpType));
    EXPECT_EQ("icmp -", AppliesText(kBlockIcmpCode | kBlockVictimAddress));
    EXPECT_EQ("icmp others", AppliesText(kBlockIcmpType | kBlockIntruderPort));
}

TEST(BlockRuleInWords, NamesEveryFlagAsTheFileDoes) {
    EXPECT_EQ("quarantine-ddos, duration: 60, ratelimit: 10",
              BlockRuleInWords({kBlockIntruderAddress | kBlockIssue, 60, 10}));
    EXPECT_EQ("quarantine-intruder-address, quarantine-victim-port",
              BlockRuleInWords({kBlockIntruderAddress | kBlockVictimPort, 0, 0}));
    EXPECT_EQ("no words", BlockRuleInWords({}));
}

TEST(DurationInWords, TakesTheLargestUnitThatFits) {
    EXPECT_EQ("1 second", DurationInWords(1));
    EXPECT_EQ("90 seconds", DurationInWords(90));
    EXPECT_EQ("2 minutes", DurationInWords(120));
    EXPECT_EQ("1 hour", DurationInWords(3600));
    EXPECT_EQ("7 days", DurationInWords(604800));
}

TEST(SecondsFor, TurnsANumberWithAUnitIntoSeconds) {
    ListTrace::Entry entry;
    entry.item = ListTrace::Item::kDuration;
    entry.number = 2;
    EXPECT_EQ("duration: 2", SecondsFor(entry, "s"));
    EXPECT_EQ("duration: 120", SecondsFor(entry, "min"));
    EXPECT_EQ("duration: 7200", SecondsFor(entry, "h"));
    EXPECT_EQ("duration: 172800", SecondsFor(entry, "d"));
    EXPECT_EQ("", SecondsFor(entry, "fortnights"));
    entry.item = ListTrace::Item::kRateLimit;
    EXPECT_EQ("", SecondsFor(entry, "s"));
}

}  // namespace
}  // namespace tarnctl
