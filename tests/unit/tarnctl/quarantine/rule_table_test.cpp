#include "tarnctl/quarantine/rule_table.h"

#include <gtest/gtest.h>

namespace tarnctl {
namespace {

constexpr time_t kNow = 1000;

QuarantineParts Rule(const std::string& intruder, time_t expiration) {
    QuarantineParts parts;
    parts.intruder = intruder;
    parts.expiration = expiration;
    return parts;
}

TEST(RuleTableAdd, KeepsRulesInTheOrderOfTheirAsking) {
    RuleTable table;
    table.Add(Rule("10.0.0.2", 2000), "two", 22, kNow);
    table.Add(Rule("10.0.0.1", 1500), "one", 11, kNow);
    ASSERT_EQ(2U, table.Rules().size());
    EXPECT_EQ("two", table.Rules()[0].text);
    EXPECT_EQ(22U, table.Rules()[0].issueId);
    EXPECT_EQ(table.Rules()[1].parts, Rule("10.0.0.1", 1500));
}

TEST(RuleTableAdd, DoesNotKeepARuleWhoseEndHasCome) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", kNow), "now", 1, kNow);
    table.Add(Rule("10.0.0.1", kNow - 1), "past", 1, kNow);
    EXPECT_TRUE(table.Rules().empty());
}

TEST(RuleTableAdd, LetsTheLaterEndOfOneRuleHold) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 2000), "late", 1, kNow);
    table.Add(Rule("10.0.0.1", 1500), "early", 2, kNow);
    ASSERT_EQ(1U, table.Rules().size());
    EXPECT_EQ(2000, table.Rules()[0].parts.expiration);
    EXPECT_EQ("late", table.Rules()[0].text);
    EXPECT_EQ(2U, table.Rules()[0].issueId);
    EXPECT_EQ(2U, table.Rules()[0].asked);
    table.Add(Rule("10.0.0.1", 2500), "later", 3, kNow);
    EXPECT_EQ(2500, table.Rules()[0].parts.expiration);
    EXPECT_EQ("later", table.Rules()[0].text);
}

TEST(RuleTableAdd, TellsRulesApartByTheirCounter) {
    RuleTable table;
    QuarantineParts limited = Rule("10.0.0.1", 2000);
    limited.counter = 5;
    table.Add(Rule("10.0.0.1", 2000), "all", 1, kNow);
    table.Add(limited, "some", 1, kNow);
    EXPECT_EQ(2U, table.Rules().size());
}

TEST(RuleTableEndOf, FindsARuleByAllButItsEnd) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 2000), "one", 1, kNow);
    EXPECT_EQ(2000, table.EndOf(Rule("10.0.0.1", 1)));
    EXPECT_EQ(0, table.EndOf(Rule("10.0.0.2", 2000)));
}

TEST(RuleTableDropExpired, TakesOutWhatHasEndedAndKeepsTheOrder) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 1300), "a", 1, kNow);
    table.Add(Rule("10.0.0.2", 1100), "b", 2, kNow);
    table.Add(Rule("10.0.0.3", 1200), "c", 3, kNow);
    table.Add(Rule("10.0.0.4", 1100), "d", 4, kNow);
    EXPECT_TRUE(table.DropExpired(1099).empty());
    const std::vector<RuleInForce> gone = table.DropExpired(1100);
    ASSERT_EQ(2U, gone.size());
    EXPECT_EQ("b", gone[0].text);
    EXPECT_EQ("d", gone[1].text);
    ASSERT_EQ(2U, table.Rules().size());
    EXPECT_EQ("a", table.Rules()[0].text);
    EXPECT_EQ("c", table.Rules()[1].text);
}

}  // namespace
}  // namespace tarnctl
