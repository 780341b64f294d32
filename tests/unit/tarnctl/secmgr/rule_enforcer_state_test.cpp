#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <list>
#include <memory>

#include "support/temp_dir.h"
#include "tarnctl/secmgr/rule_enforcer.h"
#include "unit/tarnctl/quarantine/scripted_engine.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace tarnctl {
namespace {

class RuleEnforcerState : public testing::Test {
  protected:
    RuleEnforcerState() {
        m_settings.nft = true;
        m_settings.state = m_dir.File("state");
        m_settings.nftEngine = ScriptedEngine::Maker(m_dir.Path());
        m_settings.objectionToNetwork = [] { return std::string(); };
        m_settings.hostAddresses = [] { return std::vector<std::string>(); };
    }
    // As after a kill, when the one before it wrote nothing at its end.
    std::string Begin() {
        m_told.clear();
        m_dir.Write("changes", "");
        m_enforcer = std::make_unique<RuleEnforcer>(
            m_settings, [this](const std::string& text) { m_told.push_back(text); });
        return m_enforcer->Begin();
    }
    std::string Ask(const std::string& intruder, time_t seconds = 3600, uint32_t issueId = 7) {
        QuarantineParts parts;
        const std::string text =
            "ip intruder addr " + intruder + " expires " + UtcText(std::time(nullptr) + seconds);
        EXPECT_EQ("", ParseQuarantineText(text, parts));
        return m_enforcer->PutIntoForce(parts, text, issueId);
    }
    static size_t Count(const std::string& text, const std::string& what) {
        size_t count = 0;
        for (size_t place = text.find(what); place != std::string::npos;
             place = text.find(what, place + 1)) {
            ++count;
        }
        return count;
    }
    std::string Changes() const { return m_dir.Read("changes"); }
    std::vector<std::string> InForce() const {
        std::vector<std::string> intruders;
        for (const RuleInForce& rule : m_enforcer->Table().Rules()) {
            intruders.push_back(rule.parts.intruder);
        }
        return intruders;
    }

    TempDir m_dir;
    EnforcerSettings m_settings;
    std::vector<std::string> m_told;
    std::unique_ptr<RuleEnforcer> m_enforcer;
};

TEST_F(RuleEnforcerState, PutsRulesIntoForceAgainTogetherWithTheTable) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ("", Ask("10.0.0.2", 2 * 86400));
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.1", "10.0.0.2"));
    EXPECT_EQ(7U, m_enforcer->Table().Rules().front().issueId);
    EXPECT_THAT(m_told,
                ElementsAre("2 rules of " + m_settings.state + " in force again, 0 had ended"));
    EXPECT_THAT(Changes(), testing::ContainsRegex(
                               "delete table inet tarn.*add element inet tarn ip_saddr . 10.0.0.1 "
                               "timeout 0d3[56][0-9][0-9]s, 10.0.0.2 timeout [12]d[0-9]+s .\n$"));
    EXPECT_EQ(100U + 4, std::stoul(m_dir.Read("generation")))
        << "two starts and two rules, a change each";
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ(1U, m_enforcer->Table().Rules().front().asked - 1) << "it is the same rule";
}

TEST_F(RuleEnforcerState, PutsThemInPieceByPieceWhereTheKernelTakesLessAtOnce) {
    ASSERT_EQ("", Begin());
    std::list<RuleInForce> rules;
    for (int host = 0; host < 1200; ++host) {
        RuleInForce rule;
        rule.text = "ip intruder addr 203.0." + std::to_string(host / 256) + "." +
                    std::to_string(host % 256) + " expires 2036-11-12T15:00:00Z";
        ASSERT_EQ("", ParseQuarantineText(rule.text, rule.parts));
        rules.push_back(rule);
    }
    ASSERT_EQ("", QuarantineState(m_settings.state).Rewrite(rules));
    m_dir.Write("longest", "30000");
    ASSERT_EQ("", Begin());
    EXPECT_EQ(1200U, InForce().size());
    const std::string changes = Changes();
    const std::string pieces = changes.substr(changes.rfind("delete table inet tarn"));
    EXPECT_EQ(1U, Count(pieces, "add set"));
    EXPECT_EQ(3U, Count(pieces, "add element"));
    EXPECT_EQ(1200U, Count(pieces, " timeout "));
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ("", Ask("203.0.0.7")) << "which is there";
    EXPECT_EQ(1201U, InForce().size());
}

TEST_F(RuleEnforcerState, LeavesOutWhatHasEndedMeanwhile) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1", 1));
    EXPECT_EQ("", Ask("10.0.0.2"));
    const time_t start = std::time(nullptr);
    while (std::time(nullptr) < start + 2) {
        const timespec pause = {.tv_sec = 0, .tv_nsec = 10000000};
        nanosleep(&pause, nullptr);
    }
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.2"));
    EXPECT_THAT(m_told, ElementsAre(EndsWith("1 rule of " + m_settings.state +
                                             " in force again, 1 had ended")));
    EXPECT_THAT(Changes(), Not(HasSubstr("10.0.0.1")));
}

TEST_F(RuleEnforcerState, LeavesOutWhatIsProtectedNowAndWhatIsTooMuch) {
    ASSERT_EQ("", Begin());
    for (const char* const intruder : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        EXPECT_EQ("", Ask(intruder));
    }
    m_settings.never = {"10.0.0.1"};
    m_settings.maxRules = 1;
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.2"));
    EXPECT_THAT(Changes(), AllOf(Not(HasSubstr("10.0.0.1")), Not(HasSubstr("10.0.0.3"))));
    EXPECT_THAT(m_told, Contains(HasSubstr("(10.0.0.1 is never quarantined)")));
    EXPECT_THAT(m_told, Contains(HasSubstr("(over the limit of --max-rules)")));
    m_settings.never.clear();
    m_settings.maxRules = 9;
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.2")) << "the file has learnt of it";
}

TEST_F(RuleEnforcerState, ForgetsWhatEndedBeforeItsTime) {
    m_settings.neverFile = {m_dir.Write("never", "")};
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ("", Ask("10.0.0.2"));
    m_dir.Write("never", "10.0.0.1\n");
    EXPECT_EQ("", m_enforcer->ReloadLists());
    m_dir.Write("never", "");
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.2"));
    m_dir.Write("handle", "0");
    m_dir.Write("generation", "900");
    EXPECT_EQ("", Ask("10.0.0.3"));
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.3")) << "the table was removed in between";
}

TEST_F(RuleEnforcerState, KeepsNoRuleThatTheKernelRefused) {
    ASSERT_EQ("", Begin());
    m_dir.Write("fail", "0");
    EXPECT_NE("", Ask("10.0.0.1"));
    EXPECT_THAT(Begin(), HasSubstr("no such thing"));
    std::filesystem::remove(m_dir.File("fail"));
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), IsEmpty());
}

TEST_F(RuleEnforcerState, KeepsTheFileWhenTheKernelTakesNothingAtTheStart) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1"));
    m_dir.Write("fail", "0");
    EXPECT_NE("", Begin());
    std::filesystem::remove(m_dir.File("fail"));
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.1"));
}

TEST_F(RuleEnforcerState, KeepsTheLaterEndAndItsSignature) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1", 600, 1));
    EXPECT_EQ("", Ask("10.0.0.1", 1800, 2));
    EXPECT_EQ("", Ask("10.0.0.1", 60, 3));
    const time_t end = m_enforcer->Table().Rules().front().parts.expiration;
    ASSERT_EQ("", Begin());
    EXPECT_EQ(end, m_enforcer->Table().Rules().front().parts.expiration);
    EXPECT_EQ(2U, m_enforcer->Table().Rules().front().issueId);
}

TEST_F(RuleEnforcerState, WritesNothingForARuleThatEndsAsBefore) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1", 600));
    const std::string before = m_dir.Read("state");
    for (int count = 0; count < 10; ++count) {
        EXPECT_EQ("", Ask("10.0.0.1", 60));
    }
    EXPECT_EQ(before, m_dir.Read("state"));
    EXPECT_EQ("", m_enforcer->Save());
    EXPECT_THAT(m_dir.Read("state"), HasSubstr("\"asked\":11"));
}

TEST_F(RuleEnforcerState, DoesNotLetAClockThatWasSetBackMakeARuleLonger) {
    ASSERT_EQ("", Begin());
    const time_t now = std::time(nullptr);
    RuleInForce rule;
    rule.since = now + 86400;  // the clock is a day behind now
    rule.text = "ip intruder addr 10.0.0.1 expires " + UtcText(rule.since + 100);
    ASSERT_EQ("", ParseQuarantineText(rule.text, rule.parts));
    ASSERT_EQ("", QuarantineState(m_settings.state).Rewrite({rule}));
    ASSERT_EQ("", Begin());
    EXPECT_THAT(Changes(), HasSubstr("10.0.0.1 timeout 0d100s }"));
}

TEST_F(RuleEnforcerState, ServesThoughTheFileCannotBeWritten) {
    std::filesystem::create_directory(m_settings.state + ".new");
    ASSERT_EQ("", Begin());
    EXPECT_THAT(m_told, Contains(HasSubstr("rules are in force that a restart would forget: ")));
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ(2U, m_told.size()) << "told once";
}

TEST_F(RuleEnforcerState, DoesNotReplaceAFileThatIsSomethingElse) {
    m_dir.Write("state", "precious\n");
    EXPECT_THAT(Begin(), HasSubstr("holds no quarantine"));
    EXPECT_EQ("precious\n", m_dir.Read("state"));
    EXPECT_EQ("", Changes());
}

TEST_F(RuleEnforcerState, EndsEverythingWithTheTable) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1"));
    EXPECT_EQ("", m_enforcer->Flush());
    EXPECT_THAT(InForce(), IsEmpty());
    ASSERT_EQ("", Begin());
    EXPECT_THAT(InForce(), IsEmpty());
}

TEST_F(RuleEnforcerState, ChangesNothingInADryRun) {
    ASSERT_EQ("", Begin());
    EXPECT_EQ("", Ask("10.0.0.1"));
    const std::string before = m_dir.Read("state");
    m_settings.dryRun = true;
    m_settings.nftEngine = nullptr;
    m_settings.objectionToNetwork = [] { return std::string("not asked"); };
    m_settings.never = {"10.0.0.9"};
    ASSERT_EQ("", Begin());
    EXPECT_THAT(m_told, ElementsAre(EndsWith(" would be in force again, 0 had ended")));
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.1"));
    EXPECT_EQ("", Ask("10.0.0.2"));
    EXPECT_EQ("10.0.0.9 is never quarantined", Ask("10.0.0.9"));
    EXPECT_EQ("", Ask("10.0.0.1", 7200));
    m_enforcer->CompareWithKernel();
    EXPECT_THAT(InForce(), ElementsAre("10.0.0.1", "10.0.0.2"));
    EXPECT_EQ("", m_enforcer->Save());
    EXPECT_EQ("", m_enforcer->Flush());
    EXPECT_EQ(before, m_dir.Read("state"));
    EXPECT_EQ("", Changes());
}

}  // namespace
}  // namespace tarnctl
