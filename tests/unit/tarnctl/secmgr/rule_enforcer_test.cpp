#include "tarnctl/secmgr/rule_enforcer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>

#include "support/temp_dir.h"
#include "unit/tarnctl/quarantine/scripted_engine.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace tarnctl {
namespace {

constexpr const char* kSource = "203.0.113.1";
constexpr time_t kAnHour = 3600;

class RuleEnforcerTest : public testing::Test {
  protected:
    EnforcerSettings Settings() {
        EnforcerSettings settings;
        settings.nft = true;
        settings.nftEngine = ScriptedEngine::Maker(m_dir.Path());
        settings.objectionToNetwork = [] { return std::string(); };
        settings.hostAddresses = [this] {
            ++m_lookUps;
            return m_addresses;
        };
        return settings;
    }

    void Begin() { ASSERT_EQ("", m_enforcer.Begin()); }
    static QuarantineParts Rule(const std::string& intruder, time_t seconds = kAnHour) {
        QuarantineParts parts;
        parts.intruder = intruder;
        parts.expiration = std::time(nullptr) + seconds;
        return parts;
    }
    std::string Ask(const QuarantineParts& parts) {
        return m_enforcer.PutIntoForce(parts, "text of " + parts.intruder, 7);
    }
    std::string Ask(const std::string& intruder = kSource) { return Ask(Rule(intruder)); }

    // What has come to the engine since the last call.
    std::string NewChanges() {
        const std::string all = m_dir.Read("changes");
        std::string fresh = all.substr(m_seen);
        m_seen = all.size();
        return fresh;
    }
    void SomebodyElseChangesTheRuleset() {
        const std::string number = m_dir.Read("generation");
        m_dir.Write("generation", std::to_string(std::stoul(number) + 1));
    }
    void SomebodyElseRemovesTheTable() {
        m_dir.Write("handle", "0");
        SomebodyElseChangesTheRuleset();
    }
    void Mend(const char* fault) { std::filesystem::remove(m_dir.File(fault)); }

    TempDir m_dir;
    EnforcerSettings m_settings = Settings();
    std::vector<std::string> m_addresses;
    int m_lookUps = 0;
    std::vector<std::string> m_told;
    size_t m_seen = 0;
    RuleEnforcer m_enforcer{m_settings,
                            [this](const std::string& text) { m_told.push_back(text); }};
};

TEST_F(RuleEnforcerTest, MakesASetOnceAndAnElementAnewOnlyForALaterEnd) {
    Begin();
    EXPECT_EQ("", Ask());
    EXPECT_THAT(NewChanges(), HasSubstr("add set"));
    EXPECT_EQ("", Ask());
    EXPECT_EQ("", NewChanges());
    EXPECT_EQ("", Ask(Rule(kSource, 2 * kAnHour)));
    EXPECT_THAT(NewChanges(), StartsWith("add element"));
    EXPECT_EQ("", Ask("203.0.113.2"));
    EXPECT_THAT(NewChanges(), StartsWith("add element inet tarn ip_saddr { 203.0.113.2 }"));
}

TEST_F(RuleEnforcerTest, DoesNotRememberASetWhoseChangeFailed) {
    m_dir.Write("fail", "1");
    Begin();
    EXPECT_EQ("nft: Error: no such thing", Ask());
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
    Mend("fail");
    NewChanges();
    EXPECT_EQ("", Ask());
    EXPECT_THAT(NewChanges(), StartsWith("add set inet tarn ip_saddr "));
}

TEST_F(RuleEnforcerTest, DoesNotTakeAKilledProcessForSuccess) {
    m_dir.Write("die", "1");
    Begin();
    EXPECT_EQ("nft: the process that changes the table has ended", Ask());
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
    Mend("die");
    EXPECT_EQ("", Ask());
}

TEST_F(RuleEnforcerTest, RefusesWithinASecondOrTwoWhatDoesNotEnd) {
    m_dir.Write("hang", "1");
    Begin();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("nft: no answer of the kernel in time", Ask());
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::seconds(1));
    EXPECT_LT(taken, std::chrono::seconds(3));
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
    Mend("hang");
    EXPECT_EQ("", Ask());
}

// --- what was given up and carried out nevertheless -------------------------------------------

TEST_F(RuleEnforcerTest, TakesOutARefusedRuleThatTheKernelTookLate) {
    m_dir.Write("hang", "2");
    Begin();
    EXPECT_EQ("", Ask("203.0.113.9"));
    EXPECT_NE("", Ask());
    Mend("hang");
    SomebodyElseChangesTheRuleset();  // which is what the late change looks like
    NewChanges();
    EXPECT_EQ("", Ask("203.0.113.2"));
    EXPECT_THAT(NewChanges(), HasSubstr("drop\nadd element inet tarn ip_saddr { 203.0.113.1 }\n"
                                        "delete element inet tarn ip_saddr { 203.0.113.1 }\n"
                                        "add element inet tarn ip_saddr { 203.0.113.2 }\n"));
    EXPECT_THAT(m_told, IsEmpty()) << "the other rules stay in force";
}

TEST_F(RuleEnforcerTest, TakesOutNothingWhenWhatWasGivenUpDidNotHappen) {
    m_dir.Write("hang", "1");
    Begin();
    EXPECT_NE("", Ask());
    Mend("hang");
    NewChanges();
    EXPECT_EQ("", Ask());
    EXPECT_THAT(NewChanges(), StartsWith("add set"));
    SomebodyElseChangesTheRuleset();
    EXPECT_EQ("", Ask("203.0.113.2"));
    EXPECT_THAT(NewChanges(), Not(HasSubstr("delete element inet tarn ip_saddr { 203.0.113.1 }")));
}

// --- what somebody else does to the tables
// --------------------------------------------------------

TEST_F(RuleEnforcerTest, MakesTheTableAnewWhenSomebodyElseHasRemovedIt) {
    Begin();
    EXPECT_EQ("", Ask());
    EXPECT_EQ("", Ask("203.0.113.2"));
    SomebodyElseRemovesTheTable();
    NewChanges();
    EXPECT_EQ("", Ask());
    const std::string changes = NewChanges();
    EXPECT_THAT(changes, StartsWith("add table inet tarn\ndelete table inet tarn\n"));
    EXPECT_THAT(changes, HasSubstr("add set inet tarn ip_saddr "));
    EXPECT_THAT(changes, HasSubstr("203.0.113.1 timeout"));
    const std::string why = "no longer in force (somebody else has removed the table inet tarn): ";
    EXPECT_THAT(m_told, ElementsAre(why + "SID 7  text of 203.0.113.1",
                                    why + "SID 7  text of 203.0.113.2"));
    EXPECT_EQ(1U, m_enforcer.Table().Rules().size());
}

TEST_F(RuleEnforcerTest, ForgetsALongerEndWithTheTable) {
    Begin();
    EXPECT_EQ("", Ask(Rule(kSource, 100 * kAnHour)));
    SomebodyElseRemovesTheTable();
    const QuarantineParts rule = Rule(kSource);
    EXPECT_EQ("", Ask(rule));
    EXPECT_EQ(rule.expiration, m_enforcer.Table().EndOf(rule));
}

TEST_F(RuleEnforcerTest, TakesATableOfTheSameNameForAnother) {
    Begin();
    EXPECT_EQ("", Ask());
    m_dir.Write("handle", "2");
    SomebodyElseChangesTheRuleset();
    EXPECT_EQ("", Ask());
    EXPECT_EQ(1U, m_told.size());
}

TEST_F(RuleEnforcerTest, MendsItsTableAfterAForeignChangeAndKeepsTheRules) {
    Begin();
    EXPECT_EQ("", Ask());
    SomebodyElseChangesTheRuleset();
    NewChanges();
    EXPECT_EQ("", Ask());
    const std::string changes = NewChanges();
    EXPECT_THAT(changes, Not(HasSubstr("delete table")));
    EXPECT_THAT(changes, HasSubstr("flush table inet tarn\n"));
    EXPECT_THAT(changes, HasSubstr("add rule inet tarn quarantine ip saddr @ip_saddr drop\n"));
    EXPECT_THAT(changes, Not(HasSubstr("timeout 0d"))) << "the kernel still has the element";
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(RuleEnforcerTest, PutsARuleInAgainThatSomebodyElseHasTakenOut) {
    Begin();
    EXPECT_EQ("", Ask());
    SomebodyElseChangesTheRuleset();
    m_dir.Write("gone", "");
    NewChanges();
    EXPECT_EQ("", Ask());
    EXPECT_THAT(NewChanges(), HasSubstr("203.0.113.1 timeout"));
    EXPECT_THAT(m_told, ElementsAre("no longer in force (somebody else has removed it): SID 7  "
                                    "text of 203.0.113.1"));
    EXPECT_EQ("", Ask());
    EXPECT_EQ("", NewChanges()) << "it is certain again";
}

TEST_F(RuleEnforcerTest, ShowsOnlyWhatTheKernelHas) {
    Begin();
    EXPECT_EQ("", Ask("203.0.113.1"));
    EXPECT_EQ("", Ask("203.0.113.2"));
    QuarantineParts ports = Rule("203.0.113.3");
    ports.protocol = IPPROTO_TCP;
    ports.destinationPort = 80;
    EXPECT_EQ("", Ask(ports));
    m_dir.Write("listing", R"({"nftables": [{"set": {"name": "empty"}},
        {"set": {"name": "ip_saddr", "elem": [{"elem": {"val": "203.0.113.2", "timeout": 1}}]}},
        {"set": {"name": "ip_saddr_tcp_dport",
                 "elem": [{"elem": {"val": {"concat": ["203.0.113.3", 80]}}}]}}]})");
    m_enforcer.CompareWithKernel();
    EXPECT_EQ(3U, m_enforcer.Table().Rules().size()) << "nobody else has changed anything";
    SomebodyElseChangesTheRuleset();
    m_enforcer.CompareWithKernel();
    ASSERT_EQ(2U, m_enforcer.Table().Rules().size());
    EXPECT_EQ("203.0.113.2", m_enforcer.Table().Rules().front().parts.intruder);
    EXPECT_THAT(m_told, ElementsAre(HasSubstr("removed it): SID 7  text of 203.0.113.1")));
}

// --- what must not be cut off
// ---------------------------------------------------------------------

TEST_F(RuleEnforcerTest, LooksForAddressesOfTheHostAtEachRule) {
    Begin();
    EXPECT_EQ("", Ask("203.0.113.2"));
    const int before = m_lookUps;
    m_addresses = {kSource};
    EXPECT_EQ("203.0.113.1 is never quarantined", Ask());
    EXPECT_LT(before, m_lookUps);
}

TEST_F(RuleEnforcerTest, EndsARuleWhoseAddressHasBecomeTheHostsOwn) {
    Begin();
    EXPECT_EQ("", Ask());
    EXPECT_EQ("", Ask("203.0.113.2"));
    m_addresses = {kSource};
    NewChanges();
    EXPECT_EQ("", Ask("203.0.113.3"));
    EXPECT_THAT(NewChanges(), StartsWith("add element inet tarn ip_saddr { 203.0.113.1 }\n"
                                         "delete element inet tarn ip_saddr { 203.0.113.1 }\n"
                                         "add element inet tarn ip_saddr { 203.0.113.3 }"));
    EXPECT_THAT(m_told, ElementsAre("no longer in force (203.0.113.1 is never quarantined): SID 7  "
                                    "text of 203.0.113.1"));
    EXPECT_EQ(2U, m_enforcer.Table().Rules().size());
}

TEST_F(RuleEnforcerTest, TriesAgainToEndARuleThatMustEnd) {
    m_dir.Write("fail", "2");
    Begin();
    EXPECT_EQ("", Ask());
    m_addresses = {kSource};
    EXPECT_NE("", Ask("203.0.113.3"));
    m_enforcer.Upkeep();
    EXPECT_THAT(m_told, ElementsAre("rules that must end are still in force: nft: Error: no such "
                                    "thing"))
        << "once";
    EXPECT_EQ(1U, m_enforcer.Table().Rules().size());
    Mend("fail");
    m_enforcer.Upkeep();
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
}

TEST_F(RuleEnforcerTest, EndsManyRulesAtOnce) {
    Begin();
    for (int host = 0; host < 600; ++host) {
        ASSERT_EQ("", Ask("10.0." + std::to_string(host / 256) + "." + std::to_string(host % 256)));
    }
    m_settings.never = {"10.0.0.0/8"};
    NewChanges();
    EXPECT_EQ("", m_enforcer.ReloadLists());
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
    EXPECT_EQ(600U, m_told.size());
    const std::string changes = NewChanges();
    EXPECT_THAT(changes, HasSubstr("delete element inet tarn ip_saddr { 10.0.0.0 }\n"));
    EXPECT_THAT(changes, EndsWith("delete element inet tarn ip_saddr { 10.0.2.87 }\n"));
}

TEST_F(RuleEnforcerTest, KeepsItsListsWhenOneCannotBeReadAgain) {
    m_settings.neverFile = {m_dir.Write("never", "203.0.113.0/24\n")};
    Begin();
    m_dir.Write("never", "203.0.113.0/99\n");
    EXPECT_THAT(m_enforcer.ReloadLists(), HasSubstr("line 1"));
    EXPECT_EQ("203.0.113.1 is never quarantined, as part of 203.0.113.0/24", Ask());
    m_dir.Write("never", "");
    EXPECT_EQ("", m_enforcer.ReloadLists());
    EXPECT_EQ("", Ask()) << "what was taken off the list may be cut off";
}

TEST_F(RuleEnforcerTest, RefusesWhatMayNotBeInTheKernelBeforeItAsksTheKernel) {
    Begin();
    NewChanges();
    EXPECT_EQ("names no address", Ask(Rule("")));
    EXPECT_EQ("its end has come already", Ask(Rule(kSource, 0)));
    EXPECT_EQ("127.0.0.1 is never quarantined, as part of 127.0.0.0/8", Ask("127.0.0.1"));
    EXPECT_EQ("", NewChanges());
}

TEST_F(RuleEnforcerTest, RefusesMoreRulesThanTheLimit) {
    m_settings.maxRules = 2;
    Begin();
    EXPECT_EQ("", Ask("203.0.113.1"));
    EXPECT_EQ("", Ask("203.0.113.2"));
    EXPECT_EQ("the limit of 2 rules in force is reached (--max-rules)", Ask("203.0.113.3"));
    EXPECT_EQ("", Ask(Rule("203.0.113.2", 2 * kAnHour))) << "it is not one more";
}

TEST_F(RuleEnforcerTest, DoesNotBeginInANetworkThatIsNotItsOwn) {
    m_settings.objectionToNetwork = [] { return std::string("not here"); };
    EXPECT_EQ("not here", m_enforcer.Begin());
    EXPECT_EQ("", NewChanges());
}

TEST_F(RuleEnforcerTest, TellsWhenARuleEnds) {
    Begin();
    QuarantineParts rule = Rule(kSource, 1);
    EXPECT_EQ("", Ask(rule));
    while (std::time(nullptr) < rule.expiration) {
        timespec pause = {.tv_sec = 0, .tv_nsec = 10000000};
        nanosleep(&pause, nullptr);
    }
    m_enforcer.Upkeep();
    EXPECT_THAT(m_told, ElementsAre("no longer in force: SID 7  text of 203.0.113.1"));
    EXPECT_THAT(m_enforcer.Table().Rules(), IsEmpty());
}

TEST_F(RuleEnforcerTest, RemovesWhatAManagerWithOtherHooksHasLeft) {
    m_settings.hook = {"bridge"};
    RuleEnforcer enforcer(m_settings, [](const std::string&) {});
    EXPECT_EQ("", enforcer.Begin());
    EXPECT_THAT(NewChanges(), StartsWith("add table inet tarn\ndelete table inet tarn\n"
                                         "add table bridge tarn\n"));
    m_settings.hook = {"input"};
    RuleEnforcer other(m_settings, [](const std::string&) {});
    EXPECT_EQ("", other.Begin());
    EXPECT_THAT(NewChanges(), Not(HasSubstr("bridge")));
}

}  // namespace
}  // namespace tarnctl
