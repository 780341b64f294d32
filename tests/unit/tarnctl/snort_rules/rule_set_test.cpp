#include "tarnctl/snort_rules/rule_set.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

std::string Rule(const std::string& options) {
    return "alert tcp any any -> any any (" + options + ")\n";
}

class RuleSetTest : public testing::Test {
  protected:
    // "1:7 rev 2 NAME MESSAGE" of each signature that may alert; NAME is the file's.
    std::vector<std::string> Alerting() const {
        std::vector<std::string> alerting;
        for (const SnortRule& rule : m_set.Signatures()) {
            if (rule.MayAlert()) {
                alerting.push_back(std::to_string(rule.generator) + ":" + std::to_string(rule.sid) +
                                   " rev " + std::to_string(rule.revision) + " " +
                                   std::filesystem::path(m_set.FileOf(rule)).filename().string() +
                                   " " + rule.message);
            }
        }
        return alerting;
    }

    std::vector<std::string> Remarks() const {
        std::vector<std::string> remarks;
        for (const RuleRemark& remark : m_set.Remarks()) {
            remarks.push_back(
                std::filesystem::path(m_set.Files()[remark.file]).filename().string() + ":" +
                std::to_string(remark.line) + " " + remark.text);
        }
        return remarks;
    }

    std::string MakeFolder(const std::string& name) const {
        std::filesystem::create_directory(m_dir.File(name));
        return m_dir.File(name);
    }

    TempDir m_dir;
    RuleSet m_set;
};

TEST_F(RuleSetTest, TakesTheHighestRevisionOfASignature) {
    EXPECT_TRUE(m_set.Read(m_dir.Write("a.rules", Rule("msg:\"old\"; sid:1; rev:3;") +
                                                      Rule("msg:\"new\"; sid:1; rev:10;") +
                                                      Rule("msg:\"older\"; sid:1; rev:2;") +
                                                      Rule("msg:\"again\"; sid:1; rev:10;"))));
    EXPECT_THAT(Alerting(), ElementsAre("1:1 rev 10 a.rules new"));
}

TEST_F(RuleSetTest, CountsASignatureAsEnabledIfOneOfItsRulesIs) {
    EXPECT_TRUE(m_set.Read(m_dir.Write("a.rules", "#" + Rule("msg:\"off\"; sid:1; rev:9;") +
                                                      Rule("msg:\"on\"; sid:1; rev:3;") + "#" +
                                                      Rule("msg:\"off\"; sid:2;"))));
    EXPECT_THAT(Alerting(), ElementsAre("1:1 rev 3 a.rules on"));
    EXPECT_EQ(2U, m_set.Signatures().size());
}

TEST_F(RuleSetTest, KeepsGeneratorsApart) {
    m_set.ReadText("x.rules", Rule("sid:5; gid:116;") + Rule("sid:5;") + Rule("sid:4;"));
    EXPECT_THAT(Alerting(),
                ElementsAre("1:4 rev 0 x.rules ", "1:5 rev 0 x.rules ", "116:5 rev 0 x.rules "));
}

TEST_F(RuleSetTest, TakesAMapForWhatNoRuleNames) {
    EXPECT_TRUE(m_set.Read(m_dir.Write("sid-msg.map", "1 || one\n2 || two\n3 || three\n")));
    EXPECT_TRUE(m_set.Read(
        m_dir.Write("a.rules", "#" + Rule("msg:\"off\"; sid:1;") + Rule("sid:2; rev:4;"))));
    EXPECT_THAT(Alerting(), ElementsAre("1:2 rev 4 a.rules two", "1:3 rev 0 sid-msg.map three"));
}

TEST_F(RuleSetTest, ReadsAFolderAndWhatIsBelowIt) {
    MakeFolder("rules");
    MakeFolder("rules/deeper");
    MakeFolder("rules/.hidden");
    m_dir.Write("rules/b.rules", Rule("sid:2;"));
    m_dir.Write("rules/a.rules", Rule("sid:1; classtype:own;"));
    m_dir.Write("rules/deeper/c.rules", Rule("sid:3;"));
    m_dir.Write("rules/.hidden/d.rules", Rule("sid:4;"));
    m_dir.Write("rules/notes.txt", Rule("sid:5;"));
    m_dir.Write("rules/gen-msg.map", "116 || 6 || six\n");
    m_dir.Write("rules/classification.config", "config classification: own,Our own,2\n");
    ASSERT_EQ(0, mkfifo(m_dir.File("rules/pipe.rules").c_str(), 0600));
    std::filesystem::create_symlink(m_dir.File("rules"), m_dir.File("rules/deeper/loop"));
    EXPECT_TRUE(m_set.Read(m_dir.File("rules")));
    EXPECT_THAT(Alerting(), ElementsAre("1:1 rev 0 a.rules ", "1:2 rev 0 b.rules ",
                                        "1:3 rev 0 c.rules ", "116:6 rev 0 gen-msg.map six"));
    EXPECT_EQ(2U, m_set.PriorityOf(m_set.Signatures()[0]));
    EXPECT_THAT(Remarks(), IsEmpty());
    EXPECT_TRUE(m_set.IsComplete());
}

TEST_F(RuleSetTest, ReadsAFileOnceOnly) {
    const std::string path = m_dir.Write("a.rules", Rule("sid:1;"));
    EXPECT_TRUE(m_set.Read(path));
    EXPECT_TRUE(m_set.Read(path));
    EXPECT_TRUE(m_set.Read(m_dir.Path().string()));
    EXPECT_EQ(1U, m_set.Rules().size());
}

TEST_F(RuleSetTest, FollowsIncludesOfASensorsConfiguration) {
    MakeFolder("etc");
    MakeFolder("rules");
    m_dir.Write("rules/a.rules", Rule("sid:1;") + "include more.rules\n");
    m_dir.Write("rules/more.rules", Rule("sid:2;") + "include a.rules\n");
    m_dir.Write("rules/off.rules", Rule("sid:3;"));
    EXPECT_TRUE(m_set.Read(m_dir.Write("etc/snort.conf",
                                       "var TOP ..\n"
                                       "var RULE_PATH $(TOP)/rules\n"
                                       "include $RULE_PATH/a.rules\n"
                                       "# include $RULE_PATH/off.rules\n"
                                       "include $RULE_PATH/missing.rules\n"
                                       "include $ELSEWHERE/x.rules\n")));
    EXPECT_THAT(Alerting(), ElementsAre("1:1 rev 0 a.rules ", "1:2 rev 0 more.rules "));
    EXPECT_THAT(
        Remarks(),
        ElementsAre("snort.conf:5 the included file ../rules/missing.rules is not there",
                    "snort.conf:6 the file of \"include $ELSEWHERE/x.rules\" is not known"));
    EXPECT_FALSE(m_set.IsComplete());
}

TEST_F(RuleSetTest, RefusesAPathThatIsNotThere) {
    EXPECT_FALSE(m_set.Read(m_dir.File("none.rules")));
    EXPECT_FALSE(m_set.IsComplete());
    ASSERT_EQ(1U, m_set.Remarks().size());
    EXPECT_EQ(RuleRemarkKind::kUnreadable, m_set.Remarks()[0].kind);
    EXPECT_THAT(m_set.Remarks()[0].text, HasSubstr("No such file or directory"));
}

TEST_F(RuleSetTest, GoesOnWhenAFileOfAFolderCannotBeRead) {
    MakeFolder("rules");
    std::filesystem::create_symlink("nowhere", m_dir.File("rules/a.rules"));
    m_dir.Write("rules/b.rules", Rule("sid:2;"));
    EXPECT_TRUE(m_set.Read(m_dir.File("rules")));
    EXPECT_THAT(Alerting(), ElementsAre("1:2 rev 0 b.rules "));
    EXPECT_EQ(1U, m_set.Remarks().size());
    EXPECT_FALSE(m_set.IsComplete());
}

TEST_F(RuleSetTest, PutsARulesOwnPriorityOverItsClass) {
    m_dir.Write("classification.config",
                "config classification: web-application-attack,Overruled,3\n"
                "config classification: own,With, commas,4\n"
                "config classification: own,Again,1\n"
                "config classification: broken\n");
    EXPECT_TRUE(m_set.Read(m_dir.Write(
        "a.rules", Rule("sid:1; classtype:web-application-attack; priority:1;") +
                       Rule("sid:2; classtype:web-application-attack;") +
                       Rule("sid:3; classtype:own;") + Rule("sid:4; classtype:trojan-activity;") +
                       Rule("sid:5; classtype:nobodys;") + Rule("sid:6;"))));
    std::vector<uint32_t> priorities;
    for (const SnortRule& rule : m_set.Signatures()) {
        priorities.push_back(m_set.PriorityOf(rule));
    }
    EXPECT_THAT(priorities, ElementsAre(1U, 3U, 4U, 1U, 0U, 0U));
    EXPECT_TRUE(m_set.KnowsClass(m_set.Signatures()[2]));
    EXPECT_FALSE(m_set.KnowsClass(m_set.Signatures()[4]));
}

TEST_F(RuleSetTest, FindsTheClassesInTheFolderAboveToo) {
    MakeFolder("rules");
    m_dir.Write("classification.config", "config classification: own,Our own,2\n");
    EXPECT_TRUE(m_set.Read(m_dir.Write("rules/a.rules", Rule("sid:1; classtype:own;"))));
    EXPECT_EQ(2U, m_set.PriorityOf(m_set.Signatures()[0]));
}

}  // namespace
}  // namespace tarnctl
