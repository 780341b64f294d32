#include "tarnctl/import/import_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>

#include "config/config.h"
#include "config/event_rule_table.h"
#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "tarnctl/import/event_entry.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace tarnctl {
namespace {

class ImportCommandTest : public testing::Test {
  protected:
    ImportCommandTest() { m_options.eventFile = m_dir.File("event.conf"); }

    int Run() {
        m_out.str("");
        m_err.str("");
        return RunImport(m_options, m_out, m_err);
    }

    int RunWith(const std::string& rules) {
        m_options.rules = {m_dir.Write("a.rules", rules)};
        return Run();
    }

    // Loads the event file as the daemon does at its start.
    void Load() {
        (void)Config::s_eventTable.Commit();
        Config::s_stateFile = m_dir.File("no state");
        Config::Load(m_options.eventFile.c_str(), Config::kEventFile);
    }

    static std::string Rule(const std::string& options) {
        return "alert tcp any any -> any any (" + options + ")\n";
    }

    std::string Events() const { return m_dir.Read("event.conf"); }

    TempDir m_dir;
    ImportOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(ImportCommandTest, MakesAFileThatTheDaemonLoads) {
    EXPECT_EQ(kExitFine,
              RunWith(Rule("msg:\"A = \\\"b\\\"\\; c, d\"; sid:1; priority:1;") + "# " +
                      Rule("msg:\"off\"; sid:2;") + Rule("msg:\"quiet\"; sid:3; noalert;") +
                      Rule("msg:\"new\"; sid:4; rev:2;") +
                      Rule("msg:\"old\"; sid:4; rev:1; priority:1;")));
    EXPECT_EQ("tarnctl import: " + m_options.eventFile + ": 2 entries added, 0 removed, 0 kept\n",
              m_err.str());
    EXPECT_EQ("", m_out.str());
    Load();
    EXPECT_EQ(2U, Config::s_eventTable.NodeCount());
    const std::shared_ptr<Node> one = Config::s_eventTable.Find(1);
    ASSERT_TRUE(one);
    EXPECT_EQ("A = \"b\"; c, d", one->eventName);
    EXPECT_EQ(static_cast<uint32_t>(kSeverityHigh), one->severity);
    EXPECT_EQ("DISPLAY:WithoutRaw", one->userResponse);
    EXPECT_EQ(0U, one->responseFlags);
    EXPECT_TRUE(one->blockRules.empty());
    const std::shared_ptr<Node> four = Config::s_eventTable.Find(4);
    ASSERT_TRUE(four);
    EXPECT_EQ("new", four->eventName);
    EXPECT_EQ(static_cast<uint32_t>(kSeverityLow), four->severity);
}

TEST_F(ImportCommandTest, KeepsWhatIsThereByteForByte) {
    const std::string old =
        "# mine\r\n\r\nse.2.msg = my own \r\n\tse.1.response = quarantine-traffic\nse.9.msg=x";
    m_dir.Write("event.conf", old);
    EXPECT_EQ(kExitFine, RunWith(Rule("msg:\"a\"; sid:1;") + Rule("msg:\"b\"; sid:2;") +
                                 Rule("msg:\"c\"; sid:3;")));
    EXPECT_THAT(Events(), StartsWith(old + "\n\n# tarnctl import: 1:3 at "));
    EXPECT_THAT(Events(), EndsWith("se.3.response = none\n"));
    EXPECT_THAT(m_err.str(), HasSubstr(": 1 entry added, 0 removed, 3 kept\n"));
    Load();
    EXPECT_EQ(4U, Config::s_eventTable.NodeCount());
}

TEST_F(ImportCommandTest, ChangesNothingTheSecondTime) {
    const std::string rules = Rule("msg:\"a\"; sid:1;") + Rule("sid:2; gid:3;");
    EXPECT_EQ(kExitFine, RunWith(rules));
    const std::string first = Events();
    struct stat before = {};
    ASSERT_EQ(0, stat(m_options.eventFile.c_str(), &before));
    m_options.prune = true;
    EXPECT_EQ(kExitFine, RunWith(rules));
    EXPECT_EQ(first, Events());
    EXPECT_THAT(m_err.str(), HasSubstr(": 0 entries added, 0 removed, 2 kept\n"));
    struct stat after = {};
    ASSERT_EQ(0, stat(m_options.eventFile.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(ImportCommandTest, ShowsTheChangeAndWritesNothing) {
    m_options.dryRun = true;
    EXPECT_EQ(kExitFine, RunWith(Rule("msg:\"a\"; sid:1;")));
    EXPECT_FALSE(std::filesystem::exists(m_options.eventFile));
    EXPECT_THAT(m_out.str(), StartsWith("--- /dev/null\n+++ " + m_options.eventFile +
                                        "\n@@ -0,0 +1,9 @@\n+# tarn_event.conf"));
    EXPECT_THAT(m_out.str(), EndsWith("+se.1.response = none\n"));
    EXPECT_THAT(m_err.str(), HasSubstr(": 1 entry would be added"));
    m_dir.Write("event.conf", "se.1.msg = a\n");
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ("", m_out.str());
    EXPECT_EQ("se.1.msg = a\n", Events());
}

TEST_F(ImportCommandTest, PrunesEntriesThatNoRuleHas) {
    m_dir.Write("event.conf", "se.1.msg = a\nse.2.msg = b\nse.3.msg = c\n");
    EXPECT_EQ(kExitFine, RunWith(Rule("sid:1;") + "# " + Rule("sid:2;")));
    EXPECT_EQ("se.1.msg = a\nse.2.msg = b\nse.3.msg = c\n", Events());
    m_options.prune = true;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ("se.1.msg = a\nse.2.msg = b\n", Events());
    EXPECT_THAT(m_err.str(), HasSubstr(": 0 entries added, 1 removed, 2 kept\n"));
}

TEST_F(ImportCommandTest, DoesNotPruneWhenARuleFileIsMissing) {
    m_dir.Write("event.conf", "se.3.msg = c\n");
    m_options.prune = true;
    EXPECT_EQ(kExitFailure, RunWith(Rule("sid:1;") + "include missing.rules\n"));
    EXPECT_EQ("se.3.msg = c\n", Events());
    EXPECT_THAT(m_err.str(), HasSubstr("a.rules:2: the included file missing.rules is not there"));
    EXPECT_THAT(m_err.str(), HasSubstr("--prune cannot tell"));
    m_options.prune = false;
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(Events(), HasSubstr("se.1.severity"));
}

TEST_F(ImportCommandTest, NamesSignaturesThatShareAnEntry) {
    EXPECT_EQ(kExitFine, RunWith(Rule("sid:1; msg:\"a\";") + Rule("gid:116; sid:1; msg:\"b\";") +
                                 Rule("sid:2;")));
    EXPECT_THAT(m_err.str(), HasSubstr("signature 1 is used by generators 1, 116, which share one "
                                       "entry\n"));
    EXPECT_THAT(m_err.str(), Not(HasSubstr("signature 2")));
    Load();
    EXPECT_EQ(2U, Config::s_eventTable.NodeCount());
    EXPECT_EQ("a", Config::s_eventTable.Find(1)->eventName);
}

TEST_F(ImportCommandTest, ShowsTheFirstOfManyRemarks) {
    std::string rules = Rule("sid:1;");
    for (int i = 0; i < 20; ++i) {
        rules += Rule("msg:\"no sid\";");
    }
    EXPECT_EQ(kExitFine, RunWith(rules));
    EXPECT_THAT(m_err.str(), HasSubstr("a.rules:11: the rule has no sid\n"
                                       "tarnctl import: and 10 more like these\n"));
}

TEST_F(ImportCommandTest, WritesNothingWhenAPathCannotBeRead) {
    m_options.rules = {m_dir.Write("a.rules", Rule("sid:1;")), m_dir.File("none.rules")};
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_FALSE(std::filesystem::exists(m_options.eventFile));
    EXPECT_THAT(m_err.str(), HasSubstr("none.rules: No such file or directory"));
    EXPECT_THAT(m_err.str(), EndsWith("nothing is written\n"));
}

TEST_F(ImportCommandTest, RefusesATextWithoutARule) {
    EXPECT_EQ(kExitFailure, RunWith("# nothing\n"));
    EXPECT_EQ("tarnctl import: there is no rule in what was named\n", m_err.str());
    EXPECT_FALSE(std::filesystem::exists(m_options.eventFile));
}

TEST_F(ImportCommandTest, RefusesAnEventFileThatIsNone) {
    m_options.eventFile = "/dev/full";
    EXPECT_EQ(kExitFailure, RunWith(Rule("sid:1;")));
    EXPECT_EQ("tarnctl import: /dev/full is no plain file\n", m_err.str());
}

TEST_F(ImportCommandTest, ShowsTheChangeInColour) {
    m_options.dryRun = m_options.color = true;
    m_dir.Write("event.conf", "se.9.msg = old\n");
    m_options.prune = true;
    EXPECT_EQ(kExitFine, RunWith(Rule("msg:\"a\"; sid:1;")));
    EXPECT_THAT(m_out.str(), HasSubstr("\033[31m-se.9.msg = old\033[0m\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("\033[32m+se.1.msg = a\033[0m\n"));
}

TEST_F(ImportCommandTest, SaysAllInOneObject) {
    m_options.json = m_options.prune = true;
    m_dir.Write("event.conf", "se.9.msg = old\nse.2.msg = kept\n");
    EXPECT_EQ(kExitFine, RunWith(Rule("msg:\"a\"; sid:1; priority:1;") + Rule("msg:\"b\"; sid:2;") +
                                 Rule("gid:116; sid:1;") + Rule("msg:\"no sid\";")));
    EXPECT_EQ("", m_err.str());
    const auto answer = nlohmann::json::parse(m_out.str());
    EXPECT_EQ(m_options.eventFile, answer["file"]);
    EXPECT_EQ(true, answer["written"]);
    EXPECT_EQ(true, answer["complete"]);
    EXPECT_EQ(false, answer["dryRun"]);
    EXPECT_EQ(nullptr, answer["diff"]);
    EXPECT_EQ(nullptr, answer["error"]);
    ASSERT_EQ(1U, answer["added"].size());
    const nlohmann::json added = {{"id", 1},
                                  {"generators", {1, 116}},
                                  {"name", "a"},
                                  {"severity", "high"},
                                  {"file", m_dir.File("a.rules")},
                                  {"line", 1}};
    EXPECT_EQ(added, answer["added"][0]);
    EXPECT_EQ(nlohmann::json({9}), answer["removed"]);
    EXPECT_EQ(1U, answer["kept"]);
    EXPECT_EQ(nlohmann::json({{{"id", 1}, {"generators", {1, 116}}}}), answer["shared"]);
    ASSERT_EQ(1U, answer["remarks"].size());
    EXPECT_EQ("no-sid", answer["remarks"][0]["kind"]);
    EXPECT_EQ(4U, answer["remarks"][0]["line"]);
    // The second run has nothing to write.
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(false, nlohmann::json::parse(m_out.str())["written"]);
}

TEST_F(ImportCommandTest, SaysInTheObjectWhyNothingIsWritten) {
    m_options.json = true;
    m_options.rules = {m_dir.File("none.rules")};
    EXPECT_EQ(kExitFailure, Run());
    const auto answer = nlohmann::json::parse(m_out.str());
    EXPECT_EQ(false, answer["written"]);
    EXPECT_EQ(false, answer["complete"]);
    EXPECT_EQ("nothing is written", answer["error"]);
    EXPECT_EQ("unreadable", answer["remarks"][0]["kind"]);
    EXPECT_EQ(nullptr, answer["remarks"][0]["line"]);
    EXPECT_EQ("tarnctl import: nothing is written\n", m_err.str());
}

TEST_F(ImportCommandTest, ShowsTheChangeInTheObject) {
    m_options.json = m_options.dryRun = true;
    EXPECT_EQ(kExitFine, RunWith(Rule("msg:\"a\"; sid:1;")));
    const auto answer = nlohmann::json::parse(m_out.str());
    EXPECT_EQ(true, answer["dryRun"]);
    EXPECT_EQ(false, answer["written"]);
    EXPECT_THAT(answer["diff"].get<std::string>(), EndsWith("+se.1.response = none\n"));
    EXPECT_FALSE(std::filesystem::exists(m_options.eventFile));
}

// Whatever messages rules have, each entry is in force with the name that was made of its message.
TEST_F(ImportCommandTest, GivesEveryRuleAnEntryInForce) {
    std::mt19937 random(11);
    std::string rules;
    constexpr uint32_t kCount = 3000;
    for (uint32_t sid = 1; sid <= kCount; ++sid) {
        std::string message;
        for (auto length = random() % 40; length > 0; --length) {
            const char letter = static_cast<char>(random() % 256);
            message += letter == '"' || letter == '\\' || letter == ';' ? "\\" : "";
            message += letter == '\n' ? '=' : letter;
        }
        rules += Rule("msg:\"" + message + "\"; sid:" + std::to_string(sid * 7919) + ";");
    }
    EXPECT_EQ(kExitFine, RunWith(rules));
    Load();
    EXPECT_EQ(kCount, Config::s_eventTable.NodeCount());
    RuleSet set;
    ASSERT_TRUE(set.Read(m_options.rules.front()));
    for (const SnortRule& rule : set.Signatures()) {
        const std::shared_ptr<Node> node = Config::s_eventTable.Find(rule.sid);
        ASSERT_TRUE(node) << rule.sid;
        const std::string name = EventName(rule.message);
        EXPECT_EQ(name.empty() ? "Snort signature 1:" + std::to_string(rule.sid) : name,
                  node->eventName);
        EXPECT_EQ(static_cast<uint32_t>(kSeverityLow), node->severity);
    }
}

}  // namespace
}  // namespace tarnctl
