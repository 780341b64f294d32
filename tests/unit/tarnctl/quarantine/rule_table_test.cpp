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
    EXPECT_EQ("two", table.Rules().front().text);
    EXPECT_EQ(22U, table.Rules().front().issueId);
    EXPECT_EQ(table.Rules().back().parts, Rule("10.0.0.1", 1500));
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
    EXPECT_EQ(2000, table.Rules().front().parts.expiration);
    EXPECT_EQ("late", table.Rules().front().text);
    EXPECT_EQ(2U, table.Rules().front().issueId);
    EXPECT_EQ(2U, table.Rules().front().asked);
    table.Add(Rule("10.0.0.1", 2500), "later", 3, kNow);
    EXPECT_EQ(2500, table.Rules().front().parts.expiration);
    EXPECT_EQ("later", table.Rules().front().text);
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
    EXPECT_EQ("a", table.Rules().front().text);
    EXPECT_EQ("c", table.Rules().back().text);
}

TEST(RuleTableDropExpired, FindsTheFirstEndAgainAfterALaterOneWasAskedFor) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 1100), "a", 1, kNow);
    table.Add(Rule("10.0.0.1", 1300), "a", 1, kNow);
    table.Add(Rule("10.0.0.2", 1200), "b", 2, kNow);
    EXPECT_TRUE(table.DropExpired(1150).empty());
    EXPECT_EQ(1U, table.DropExpired(1200).size());
    table.Add(Rule("10.0.0.3", 1250), "c", 3, 1200);
    EXPECT_EQ(1U, table.DropExpired(1250).size());
    EXPECT_EQ(1U, table.DropExpired(1300).size());
    EXPECT_TRUE(table.DropExpired(9999).empty());
}

TEST(RuleTableTakeOut, TakesTheRulesThatAreWantedAndForgetsThem) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 2000), "a", 1, kNow);
    table.Add(Rule("10.0.0.2", 2000), "b", 2, kNow);
    const std::vector<RuleInForce> taken =
        table.TakeOut([](const RuleInForce& rule) { return rule.text == "a"; });
    ASSERT_EQ(1U, taken.size());
    EXPECT_EQ("a", taken[0].text);
    EXPECT_EQ(0, table.EndOf(Rule("10.0.0.1", 2000)));
    EXPECT_EQ(2000, table.EndOf(Rule("10.0.0.2", 1)));
    table.Add(Rule("10.0.0.1", 1500), "again", 3, kNow);
    EXPECT_EQ(1500, table.EndOf(Rule("10.0.0.1", 1)));
    EXPECT_EQ(1U, table.Rules().back().asked);
}

TEST(RuleTableAdd, RemembersSinceWhenTheEndHoldsAndWhatWasSaid) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 2000), "first", 1, kNow, "odd");
    table.Add(Rule("10.0.0.1", 1500), "earlier", 2, kNow + 1);
    EXPECT_EQ(kNow, table.Rules().front().since);
    EXPECT_EQ("odd", table.Rules().front().why);
    table.Add(Rule("10.0.0.1", 2500), "later", 3, kNow + 2, "odder");
    EXPECT_EQ(kNow + 2, table.Rules().front().since);
    EXPECT_EQ("odder", table.Rules().front().why);
}

TEST(RuleTableRestore, PutsARuleInThePlaceOfTheOneThatDiffersInItsEnd) {
    RuleTable table;
    table.Restore({.parts = Rule("10.0.0.1", 2000), .text = "late", .asked = 4, .why = ""});
    table.Restore({.parts = Rule("10.0.0.2", 2000), .text = "other", .why = ""});
    table.Restore({.parts = Rule("10.0.0.1", 1500), .text = "early", .asked = 2, .why = ""});
    ASSERT_EQ(2U, table.Rules().size());
    EXPECT_EQ("early", table.Rules().front().text);
    EXPECT_EQ(2U, table.Rules().front().asked);
    EXPECT_EQ(1500, table.EndOf(Rule("10.0.0.1", 1)));
    EXPECT_EQ(1U, table.DropExpired(1500).size()) << "and ends in time";
}

TEST(RuleTableTakeOutOne, TakesTheRuleThatDiffersInItsEndAtMost) {
    RuleTable table;
    table.Add(Rule("10.0.0.1", 2000), "one", 1, kNow);
    table.Add(Rule("10.0.0.2", 2000), "two", 2, kNow);
    EXPECT_FALSE(table.TakeOutOne(Rule("10.0.0.3", 2000)));
    EXPECT_TRUE(table.TakeOutOne(Rule("10.0.0.1", 1)));
    EXPECT_EQ(nullptr, table.Find(Rule("10.0.0.1", 2000)));
    ASSERT_NE(nullptr, table.Find(Rule("10.0.0.2", 1)));
    EXPECT_EQ("two", table.Find(Rule("10.0.0.2", 1))->text);
    EXPECT_EQ(1U, table.Rules().size());
}

TEST(SecondsLeftOf, IsNeverMoreThanAtFirst) {
    const RuleInForce rule = {
        .parts = Rule("10.0.0.1", 2000), .text = "", .since = 1400, .why = ""};
    EXPECT_EQ(100, SecondsLeft(rule, 1900));
    EXPECT_EQ(600, SecondsLeft(rule, 1400));
    EXPECT_EQ(600, SecondsLeft(rule, 3));
}

}  // namespace
}  // namespace tarnctl
