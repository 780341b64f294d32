// What the loader makes of an event configuration file: Config::ApplyEventSetting, the life of an
// entry over one load and the next, and the lookup.

#include <gmock/gmock.h>

#include "unit/config/config_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ConfigApplyEventSetting = ConfigFixture;
using ConfigLoadEvents = ConfigFixture;
using ConfigGetResponseSetting = ConfigFixture;

bool Apply(const char* name, const char* value) {
    return Config::ApplyEventSetting(name, value);
}

TEST_F(ConfigApplyEventSetting, RefusesANameOfSomebodyElseAndKeepsThePendingEntryOpen) {
    ASSERT_TRUE(Apply("se.7.msg", "seven"));
    EXPECT_FALSE(Apply("", "x"));
    EXPECT_FALSE(Apply("tarn.log.level", "5"));
    EXPECT_FALSE(Apply("event.8.msg", "x"));
    EXPECT_EQ(7U, Config::s_eventTable.PendingId());
    EXPECT_EQ(0U, Config::s_eventTable.NodeCount());
}

TEST_F(ConfigApplyEventSetting, RefusesAnIdThatIsZeroOrNoNumber) {
    EXPECT_FALSE(Apply("se.0.msg", "x"));
    EXPECT_FALSE(Apply("se.abc.msg", "x"));
    EXPECT_EQ(0U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigApplyEventSetting, ClosesAnEntryAtTheFirstLineOfAnotherId) {
    EXPECT_TRUE(Apply("se.7.msg", "seven"));
    EXPECT_EQ("-", NameOf(7));
    EXPECT_TRUE(Apply("se.8.msg", "eight"));
    EXPECT_EQ("seven", NameOf(7));
    EXPECT_EQ("-", NameOf(8));
    EXPECT_EQ(8U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigApplyEventSetting, ClosesAnEntryEvenWhereTheOtherLineSetsNothing) {
    EXPECT_TRUE(Apply("se.7.msg", "seven"));
    EXPECT_FALSE(Apply("se.8.severity", "urgent"));
    EXPECT_EQ("seven", NameOf(7));
    EXPECT_EQ(0U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigApplyEventSetting, DropsASeverityThatIsNone) {
    LoadEvents("se.7.msg = seven\nse.7.severity = urgent\nse.7.severity =\n");
    ASSERT_EQ("seven", NameOf(7));
    EXPECT_EQ(0U, Config::s_eventTable.Find(7)->severity);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigApplyEventSetting, KeepsWhatAResponseHasBeforeItFails) {
    LoadEvents("se.7.response = quarantine-traffic, nonsense\n");
    EXPECT_EQ(0x0CU, Config::s_eventTable.Find(7)->responseFlags);
}

TEST_F(ConfigApplyEventSetting, LetsTheLastLineOfAKeyWin) {
    LoadEvents(
        "se.7.response = quarantine-traffic\nse.7.response = none\n"
        "se.7.user.response = LOGEVIDENCE\nse.7.user.response = WithRaw\n"
        "se.7.severity = high\nse.7.severity = low\n");
    EXPECT_EQ(0U, Config::s_eventTable.Find(7)->responseFlags);
    EXPECT_EQ(2U, Config::s_eventTable.Find(7)->userResponseFlags);
    EXPECT_EQ(1U, Config::s_eventTable.Find(7)->severity);
}

TEST_F(ConfigApplyEventSetting, KeepsWhatAQuarantineRuleHasBeforeItFails) {
    LoadEvents("se.7.quarantine.rule = duration:60s\n");
    ASSERT_EQ(1U, Config::s_eventTable.Find(7)->blockRules.size());
    EXPECT_EQ(60U, Config::s_eventTable.Find(7)->blockRules.front().duration);
}

TEST_F(ConfigApplyEventSetting, AddsARuleOfZerosForAnEmptyQuarantineRule) {
    LoadEvents("se.7.quarantine.rule =\n");
    ASSERT_EQ(1U, Config::s_eventTable.Find(7)->blockRules.size());
    const BlockRule& rule = Config::s_eventTable.Find(7)->blockRules.front();
    EXPECT_EQ(0U, rule.flags);
    EXPECT_EQ(0U, rule.duration);
    EXPECT_EQ(0U, rule.rateLimit);
}

TEST_F(ConfigApplyEventSetting, AddsOneBlockRuleForEachQuarantineLineInFileOrder) {
    LoadEvents(
        "se.7.quarantine.rule = quarantine-worm\n"
        "se.7.quarantine.rule = quarantine-ddos, duration: 60, ratelimit:10\n");
    const auto node = Config::s_eventTable.Find(7);
    ASSERT_EQ(2U, node->blockRules.size());
    EXPECT_EQ(0x009U, node->blockRules.front().flags);
    EXPECT_EQ(0x101U, node->blockRules.back().flags);
    EXPECT_EQ(60U, node->blockRules.back().duration);
    EXPECT_EQ(10U, node->blockRules.back().rateLimit);
}

TEST_F(ConfigApplyEventSetting, EmptiesTheUserResponseForAnEmptyValue) {
    LoadEvents("se.7.user.response = LOGEVIDENCE\nse.7.user.response =\n");
    EXPECT_EQ("", Config::s_eventTable.Find(7)->userResponse);
    EXPECT_EQ(0U, Config::s_eventTable.Find(7)->userResponseFlags);
}

TEST_F(ConfigLoadEvents, ReadsAWholeEntry) {
    LoadEvents(
        "# comment\n"
        "se.2000419.severity = MEDIUM\n"
        "se.2000419.msg = Policy: a = b # c\n"
        "\n"
        "se.2000419.rule = alert tcp any any -> any any (sid:2000419;)\n"
        "se.2000419.user.response = LOGEVIDENCE WithRaw AllInterfaces\n"
        "se.2000419.response = quarantine-traffic, quarantine-icmp-traffic\n"
        "se.2000419.quarantine.rule = quarantine-intruder-address, duration: 600\n");
    const auto node = Config::s_eventTable.Find(2000419);
    ASSERT_TRUE(node) << "the last entry is committed at the end of the load";
    EXPECT_EQ(2U, node->severity);
    EXPECT_EQ("Policy: a = b # c", node->eventName);
    EXPECT_EQ("alert tcp any any -> any any (sid:2000419;)", node->rule);
    EXPECT_EQ("LOGEVIDENCE WithRaw AllInterfaces", node->userResponse);
    EXPECT_EQ(0x23U, node->userResponseFlags);
    EXPECT_EQ(0x0CU, node->responseFlags);
    ASSERT_EQ(1U, node->blockRules.size());
    EXPECT_EQ(0x001U, node->blockRules.front().flags);
    EXPECT_EQ(600U, node->blockRules.front().duration);
}

TEST_F(ConfigLoadEvents, StartsFromNothing) {
    LoadEvents("se.7.msg = seven\n");
    LoadEvents("se.8.msg = eight\n");
    EXPECT_EQ("-", NameOf(7));
    EXPECT_EQ("eight", NameOf(8));
    EXPECT_EQ(1U, Config::s_eventTable.NodeCount());
}

TEST_F(ConfigLoadEvents, EmptiesTheTableEvenWhenTheFileIsMissing) {
    LoadEvents("se.7.msg = seven\n");
    Config::Load(dir.File("missing").c_str(), Config::kEventFile);
    EXPECT_EQ("-", NameOf(7));
}

TEST_F(ConfigLoadEvents, CommitsTheLastEntryEvenWhenTheFileIsMissing) {
    dir.Write("tarn.state", "se.7.msg = seven\n");
    Config::Load(dir.File("missing").c_str(), Config::kEventFile);
    EXPECT_EQ("seven", NameOf(7));
}

TEST_F(ConfigLoadEvents, LeavesTheLastEntryPendingWithoutAPath) {
    dir.Write("tarn.state", "se.7.msg = seven\n");
    Config::Load("", Config::kEventFile);
    EXPECT_EQ("-", NameOf(7));
    EXPECT_EQ(7U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigLoadEvents, LeavesTheTableAloneForTheMainFile) {
    LoadEvents("se.7.msg = seven\n");
    LoadMain("tarn.engine.crm = 4\n");
    EXPECT_EQ("seven", NameOf(7));
}

class ConfigLoadEventsTwice : public ConfigFixture {
  protected:
    ConfigLoadEventsTwice() {
        LoadEvents(
            "se.7.msg = first\n"
            "se.8.msg = eight\n"
            "se.7.msg = second\n"
            "se.7.severity = high\n");
    }
};

TEST_F(ConfigLoadEventsTwice, KeepsTheFirstBlockOfAnIdAndTheSecondOnePending) {
    EXPECT_EQ("first", NameOf(7));
    EXPECT_EQ("eight", NameOf(8));
    EXPECT_EQ(7U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigLoadEventsTwice, KeepsFillingThePendingEntryWhenTheNextLoadBeginsWithItsId) {
    LoadEvents("se.7.msg = third\nse.8.msg = eight\n");
    EXPECT_EQ("third", NameOf(7));
    EXPECT_EQ(3U, Config::s_eventTable.Find(7)->severity) << "a field of the load before";
}

TEST_F(ConfigLoadEventsTwice, KeepsThePendingEntryAgainstTheFilesOwnWhenItBeginsWithAnotherId) {
    LoadEvents("se.8.msg = eight\nse.7.msg = third\n");
    EXPECT_EQ("second", NameOf(7));
    EXPECT_EQ("eight", NameOf(8));
    EXPECT_EQ(7U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigLoadEventsTwice, DiscardsTheRefusedEntryAtTheNextIdOfTheSameFile) {
    LoadEvents("se.7.msg = a\nse.8.msg = b\nse.7.msg = c\nse.9.msg = d\n");
    EXPECT_EQ("a", NameOf(7));
    EXPECT_EQ("d", NameOf(9));
    EXPECT_EQ(0U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigGetResponseSetting, YieldsTheEntry) {
    LoadEvents("se.7.msg = seven\n");
    const auto node = Config::GetResponseSetting(7);
    ASSERT_TRUE(node);
    EXPECT_EQ("seven", node->eventName);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigGetResponseSetting, FindsAnIdBeyondThirtyOneBits) {
    LoadEvents("se.4294967295.msg = top\n");
    EXPECT_TRUE(Config::GetResponseSetting(-1));
}

TEST_F(ConfigGetResponseSetting, LogsAMissAtLevelTwo) {
    EXPECT_EQ(nullptr, Config::GetResponseSetting(-5));
    EXPECT_THAT(log.Messages(), ElementsAre("Cannot get response setting for issue '-5'"));
    vald::Log::SetLevel(1);
    EXPECT_EQ(nullptr, Config::GetResponseSetting(6));
    EXPECT_EQ(1U, log.Messages().size());
    vald::Log::SetLevel(2);
    EXPECT_EQ(nullptr, Config::GetResponseSetting(6));
    EXPECT_EQ(2U, log.Messages().size());
}

}  // namespace
