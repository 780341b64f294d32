#include "tarnctl/quarantine/quarantine_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <random>

#include "support/temp_dir.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace tarnctl {
namespace {

class QuarantineStateTest : public testing::Test {
  protected:
    static RuleInForce Rule(const std::string& intruder, int hour = 15) {
        RuleInForce rule;
        rule.text = "ip intruder addr " + intruder + " expires 2036-11-12T" + std::to_string(hour) +
                    ":00:00Z";
        EXPECT_EQ("", ParseQuarantineText(rule.text, rule.parts));
        rule.issueId = 4000000000;
        rule.since = 1794000000;
        return rule;
    }
    void Begin(const std::list<RuleInForce>& rules = {}) { ASSERT_EQ("", m_state.Rewrite(rules)); }
    // The texts of the rules that a successor finds.
    std::vector<std::string> Found() {
        m_found = RuleTable();
        m_told.clear();
        EXPECT_EQ("", QuarantineState(m_path).Read(
                          m_found, [this](const std::string& text) { m_told.push_back(text); }));
        std::vector<std::string> texts;
        for (const RuleInForce& rule : m_found.Rules()) {
            texts.push_back(rule.text);
        }
        return texts;
    }
    std::string Refusal() {
        RuleTable table;
        return m_state.Read(table, [](const std::string&) {});
    }
    // Until the file is in order, with pauses in between as the service has them.
    void KeepUntilQuiet(const std::list<RuleInForce>& rules) {
        while (!m_state.Upkeep(rules).empty() || Found().size() != rules.size()) {
            const timespec pause = {.tv_sec = 0, .tv_nsec = 20000000};
            nanosleep(&pause, nullptr);
        }
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("quarantine");
    QuarantineState m_state{m_path};
    RuleTable m_found;
    std::vector<std::string> m_told;
};

TEST_F(QuarantineStateTest, FindsNothingWhereThereIsNoFile) {
    EXPECT_THAT(Found(), IsEmpty());
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(QuarantineStateTest, GivesBackEachRuleWithAllThatIsKnownOfIt) {
    Begin();
    RuleInForce rule = Rule("10.0.0.1");
    rule.asked = 5;
    rule.why = "looked \"odd\"\n\xff";
    m_state.NotePut(rule);
    EXPECT_THAT(Found(), ElementsAre(rule.text));
    const RuleInForce& found = m_found.Rules().front();
    EXPECT_EQ(rule.parts, found.parts);
    EXPECT_EQ(4000000000U, found.issueId);
    EXPECT_EQ(5U, found.asked);
    EXPECT_EQ(1794000000, found.since);
    EXPECT_THAT(found.why, StartsWith("looked \"odd\"\n"));
}

TEST_F(QuarantineStateTest, LetsTheLastLineAboutARuleHold) {
    Begin({Rule("10.0.0.1"), Rule("10.0.0.2")});
    m_state.NotePut(Rule("10.0.0.1", 16));
    m_state.NotePut(Rule("10.0.0.3"));
    m_state.NoteEnded(Rule("10.0.0.2"));
    EXPECT_THAT(Found(), ElementsAre(Rule("10.0.0.1", 16).text, Rule("10.0.0.3").text));
    m_state.NoteEnded(Rule("10.0.0.1", 16));
    m_state.NotePut(Rule("10.0.0.2"));
    EXPECT_THAT(Found(), ElementsAre(Rule("10.0.0.3").text, Rule("10.0.0.2").text));
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(QuarantineStateTest, NamesADamagedLineAndTakesTheOthers) {
    Begin({Rule("10.0.0.1"), Rule("10.0.0.2"), Rule("10.0.0.3")});
    std::string text = m_dir.Read("quarantine");
    text[text.find("10.0.0.2")] = '2';  // still a rule
    m_dir.Write("quarantine", text);
    EXPECT_THAT(Found(), ElementsAre(Rule("10.0.0.1").text, Rule("10.0.0.3").text));
    EXPECT_THAT(m_told, ElementsAre(StartsWith(m_path + ", line 3: damaged, and skipped: ")));
}

TEST_F(QuarantineStateTest, TakesAFileThatWasCutAnywhere) {
    Begin({Rule("10.0.0.1"), Rule("10.0.0.2")});
    const std::string text = m_dir.Read("quarantine");
    const size_t second = text.find("10.0.0.2");
    for (size_t length = text.find('\n') + 1; length < text.size(); ++length) {
        m_dir.Write("quarantine", text.substr(0, length));
        const size_t whole = Found().size();
        // The last byte is the line end, without which the line is whole all the same.
        EXPECT_EQ(length + 1 == text.size() ? 2U : (length > second ? 1U : whole), whole);
        EXPECT_LE(m_told.size(), 1U);
    }
}

TEST_F(QuarantineStateTest, SurvivesDamageOfAnyKind) {
    Begin({Rule("10.0.0.1"), Rule("10.0.0.2"), Rule("10.0.0.3")});
    const std::string text = m_dir.Read("quarantine");
    const size_t body = text.find('\n') + 1;
    std::mt19937 random(1);
    for (int turn = 0; turn < 500; ++turn) {
        std::string damaged = text;
        damaged[body + random() % (text.size() - body)] = static_cast<char>(random());
        m_dir.Write("quarantine", damaged);
        const size_t rules = Found().size();
        EXPECT_GE(rules, damaged == text ? 3U : 1U) << damaged;
        EXPECT_EQ(rules == 3, m_told.empty() || damaged.ends_with("\n") == false) << damaged;
    }
}

TEST_F(QuarantineStateTest, TakesAFileWhoseHeadIsLost) {
    Begin({Rule("10.0.0.1")});
    const std::string text = m_dir.Read("quarantine");
    m_dir.Write("quarantine", text.substr(text.find('\n') + 1));
    EXPECT_EQ(1U, Found().size());
    m_dir.Write("quarantine", std::string(4096, '\0'));
    EXPECT_THAT(Found(), IsEmpty());
    EXPECT_EQ(1U, m_told.size());
    m_dir.Write("quarantine", "");
    EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(QuarantineStateTest, RefusesAFileThatIsSomethingElse) {
    m_dir.Write("quarantine", "root:x:0:0\n");
    EXPECT_THAT(Refusal(), HasSubstr("holds no quarantine; move it away or name another file"));
    m_dir.Write("quarantine", "tarn-quarantine 2\n");
    EXPECT_THAT(Refusal(), HasSubstr("was written by another version of tarnctl; move it away"));
    std::filesystem::remove(m_path);
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    EXPECT_THAT(Refusal(), HasSubstr("is no file"));
    std::filesystem::remove(m_path);
    std::filesystem::create_directory(m_path);
    EXPECT_NE("", Refusal());
}

TEST_F(QuarantineStateTest, IsWrittenAnewWhenMostOfItIsPast) {
    const std::list<RuleInForce> rules = {Rule("10.0.0.1")};
    Begin(rules);
    for (size_t count = 0; count < QuarantineState::kLinesToSpare + 2; ++count) {
        m_state.NotePut(rules.front());
    }
    const auto full = std::filesystem::file_size(m_path);
    while (std::filesystem::file_size(m_path) == full) {
        EXPECT_EQ("", m_state.Upkeep(rules));
    }
    EXPECT_LT(std::filesystem::file_size(m_path), 1000U);
    EXPECT_EQ(1U, Found().size());
    m_state.NotePut(Rule("10.0.0.2"));
    EXPECT_EQ(2U, Found().size()) << "and goes on from there";
}

TEST_F(QuarantineStateTest, IsWrittenAnewWhenALineDidNotFit) {
    const std::list<RuleInForce> rules = {Rule("10.0.0.1"), Rule("10.0.0.2")};
    Begin({rules.front()});
    const rlimit all = [] {
        rlimit limit = {};
        getrlimit(RLIMIT_FSIZE, &limit);
        return limit;
    }();
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit little = {std::filesystem::file_size(m_path) + 20, all.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &little));
    m_state.NotePut(rules.back());
    std::string reason;
    while (reason.empty()) {
        reason = m_state.Upkeep(rules);
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &all));
    EXPECT_THAT(reason, HasSubstr(m_path + ": File too large"));
    EXPECT_EQ(1U, Found().size()) << "what was there is there";
    KeepUntilQuiet(rules);
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(QuarantineStateTest, IsWrittenLaterWhereItCannotBeWrittenAtFirst) {
    std::filesystem::create_directory(m_path + ".new");
    EXPECT_NE("", m_state.Rewrite({}));
    m_state.NotePut(Rule("10.0.0.1"));
    std::filesystem::remove(m_path + ".new");
    KeepUntilQuiet({Rule("10.0.0.1")});
}

}  // namespace
}  // namespace tarnctl
