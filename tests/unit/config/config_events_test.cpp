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
    EXPECT_EQ(Config::s_eventTable.PendingId(), 7U);
    EXPECT_EQ(Config::s_eventTable.NodeCount(), 0U);
}

TEST_F(ConfigApplyEventSetting, RefusesAnIdThatIsZeroOrNoNumber) {
    EXPECT_FALSE(Apply("se.0.msg", "x"));
    EXPECT_FALSE(Apply("se.abc.msg", "x"));
    EXPECT_EQ(Config::s_eventTable.PendingId(), 0U);
}

TEST_F(ConfigApplyEventSetting, ClosesAnEntryAtTheFirstLineOfAnotherId) {
    EXPECT_TRUE(Apply("se.7.msg", "seven"));
    EXPECT_EQ(NameOf(7), "-");
    EXPECT_TRUE(Apply("se.8.msg", "eight"));
    EXPECT_EQ(NameOf(7), "seven");
    EXPECT_EQ(NameOf(8), "-");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 8U);
}

TEST_F(ConfigApplyEventSetting, ClosesAnEntryEvenWhereTheOtherLineSetsNothing) {
    EXPECT_TRUE(Apply("se.7.msg", "seven"));
    EXPECT_FALSE(Apply("se.8.severity", "urgent"));
    EXPECT_EQ(NameOf(7), "seven");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 0U);
}

TEST_F(ConfigApplyEventSetting, DropsASeverityThatIsNone) {
    LoadEvents("se.7.msg = seven\nse.7.severity = urgent\nse.7.severity =\n");
    ASSERT_EQ(NameOf(7), "seven");
    EXPECT_EQ(Config::s_eventTable.Find(7)->severity, 0U);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigApplyEventSetting, KeepsWhatAResponseHasBeforeItFails) {
    LoadEvents("se.7.response = quarantine-traffic, nonsense\n");
    EXPECT_EQ(Config::s_eventTable.Find(7)->responseFlags, 0x0CU);
}

TEST_F(ConfigApplyEventSetting, KeepsWhatAQuarantineRuleHasBeforeItFails) {
    LoadEvents("se.7.quarantine.rule = duration:60s\n");
    ASSERT_EQ(Config::s_eventTable.Find(7)->blockRules.size(), 1U);
    EXPECT_EQ(Config::s_eventTable.Find(7)->blockRules.front().duration, 60U);
}

TEST_F(ConfigApplyEventSetting, AddsARuleOfZerosForAnEmptyQuarantineRule) {
    LoadEvents("se.7.quarantine.rule =\n");
    ASSERT_EQ(Config::s_eventTable.Find(7)->blockRules.size(), 1U);
    const BlockRule& rule = Config::s_eventTable.Find(7)->blockRules.front();
    EXPECT_EQ(rule.flags, 0U);
    EXPECT_EQ(rule.duration, 0U);
    EXPECT_EQ(rule.rateLimit, 0U);
}

TEST_F(ConfigApplyEventSetting, AddsOneBlockRuleForEachQuarantineLineInFileOrder) {
    LoadEvents(
        "se.7.quarantine.rule = quarantine-worm\n"
        "se.7.quarantine.rule = quarantine-ddos, duration: 60, ratelimit:10\n");
    const auto node = Config::s_eventTable.Find(7);
    ASSERT_EQ(node->blockRules.size(), 2U);
    EXPECT_EQ(node->blockRules.front().flags, 0x009U);
    EXPECT_EQ(node->blockRules.back().flags, 0x101U);
    EXPECT_EQ(node->blockRules.back().duration, 60U);
    EXPECT_EQ(node->blockRules.back().rateLimit, 10U);
}

TEST_F(ConfigApplyEventSetting, EmptiesTheUserResponseForAnEmptyValue) {
    LoadEvents("se.7.user.response = LOGEVIDENCE\nse.7.user.response =\n");
    EXPECT_EQ(Config::s_eventTable.Find(7)->userResponse, "");
    EXPECT_EQ(Config::s_eventTable.Find(7)->userResponseFlags, 0U);
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
    EXPECT_EQ(node->severity, 2U);
    EXPECT_EQ(node->eventName, "Policy: a = b # c");
    EXPECT_EQ(node->rule, "alert tcp any any -> any any (sid:2000419;)");
    EXPECT_EQ(node->userResponse, "LOGEVIDENCE WithRaw AllInterfaces");
    EXPECT_EQ(node->userResponseFlags, 0x23U);
    EXPECT_EQ(node->responseFlags, 0x0CU);
    ASSERT_EQ(node->blockRules.size(), 1U);
    EXPECT_EQ(node->blockRules.front().flags, 0x001U);
    EXPECT_EQ(node->blockRules.front().duration, 600U);
}

TEST_F(ConfigLoadEvents, StartsFromNothing) {
    LoadEvents("se.7.msg = seven\n");
    LoadEvents("se.8.msg = eight\n");
    EXPECT_EQ(NameOf(7), "-");
    EXPECT_EQ(NameOf(8), "eight");
    EXPECT_EQ(Config::s_eventTable.NodeCount(), 1U);
}

TEST_F(ConfigLoadEvents, EmptiesTheTableEvenWhenTheFileIsMissing) {
    LoadEvents("se.7.msg = seven\n");
    Config::Load(dir.File("missing").c_str(), Config::kEventFile);
    EXPECT_EQ(NameOf(7), "-");
}

TEST_F(ConfigLoadEvents, CommitsTheLastEntryEvenWhenTheFileIsMissing) {
    dir.Write("tarn.state", "se.7.msg = seven\n");
    Config::Load(dir.File("missing").c_str(), Config::kEventFile);
    EXPECT_EQ(NameOf(7), "seven");
}

TEST_F(ConfigLoadEvents, LeavesTheLastEntryPendingWithoutAPath) {
    dir.Write("tarn.state", "se.7.msg = seven\n");
    Config::Load("", Config::kEventFile);
    EXPECT_EQ(NameOf(7), "-");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 7U);
}

TEST_F(ConfigLoadEvents, LeavesTheTableAloneForTheMainFile) {
    LoadEvents("se.7.msg = seven\n");
    LoadMain("tarn.engine.crm = 4\n");
    EXPECT_EQ(NameOf(7), "seven");
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
    EXPECT_EQ(NameOf(7), "first");
    EXPECT_EQ(NameOf(8), "eight");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 7U);
}

TEST_F(ConfigLoadEventsTwice, KeepsFillingThePendingEntryWhenTheNextLoadBeginsWithItsId) {
    LoadEvents("se.7.msg = third\nse.8.msg = eight\n");
    EXPECT_EQ(NameOf(7), "third");
    EXPECT_EQ(Config::s_eventTable.Find(7)->severity, 3U) << "a field of the load before";
}

TEST_F(ConfigLoadEventsTwice, KeepsThePendingEntryAgainstTheFilesOwnWhenItBeginsWithAnotherId) {
    LoadEvents("se.8.msg = eight\nse.7.msg = third\n");
    EXPECT_EQ(NameOf(7), "second");
    EXPECT_EQ(NameOf(8), "eight");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 7U);
}

TEST_F(ConfigLoadEventsTwice, DiscardsTheRefusedEntryAtTheNextIdOfTheSameFile) {
    LoadEvents("se.7.msg = a\nse.8.msg = b\nse.7.msg = c\nse.9.msg = d\n");
    EXPECT_EQ(NameOf(7), "a");
    EXPECT_EQ(NameOf(9), "d");
    EXPECT_EQ(Config::s_eventTable.PendingId(), 0U);
}

TEST_F(ConfigGetResponseSetting, YieldsTheEntry) {
    LoadEvents("se.7.msg = seven\n");
    const auto node = Config::GetResponseSetting(7);
    ASSERT_TRUE(node);
    EXPECT_EQ(node->eventName, "seven");
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigGetResponseSetting, FindsAnIdBeyondThirtyOneBits) {
    LoadEvents("se.4294967295.msg = top\n");
    EXPECT_TRUE(Config::GetResponseSetting(-1));
}

TEST_F(ConfigGetResponseSetting, LogsAMissAtLevelTwo) {
    EXPECT_EQ(Config::GetResponseSetting(-5), nullptr);
    EXPECT_THAT(log.Messages(), ElementsAre("Cannot get response setting for issue '-5'"));
    vald::Log::SetLevel(1);
    EXPECT_EQ(Config::GetResponseSetting(6), nullptr);
    EXPECT_EQ(log.Messages().size(), 1U);
    vald::Log::SetLevel(2);
    EXPECT_EQ(Config::GetResponseSetting(6), nullptr);
    EXPECT_EQ(log.Messages().size(), 2U);
}

}  // namespace
