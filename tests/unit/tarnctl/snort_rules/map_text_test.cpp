#include "tarnctl/snort_rules/map_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace tarnctl {
namespace {

std::vector<std::string> Summary(const RuleFileContent& content) {
    std::vector<std::string> summary;
    for (const SnortRule& rule : content.rules) {
        EXPECT_TRUE(rule.fromMap);
        EXPECT_TRUE(rule.MayAlert());
        summary.push_back(std::to_string(rule.line) + " " + std::to_string(rule.generator) + ":" +
                          std::to_string(rule.sid) + " rev " + std::to_string(rule.revision) +
                          " priority " + std::to_string(rule.priority) + " " + rule.classification +
                          "|" + rule.message);
    }
    return summary;
}

TEST(MapText, ReadsTheFirstFormOfSidMessages) {
    const std::string text =
        "# a comment\n"
        "\n"
        "103 || BACKDOOR subseven 22 || url,www.example.org\r\n"
        "104 || 105 || cve,2000-1\n";
    EXPECT_THAT(Summary(ReadMapText("sid-msg.map", text)),
                ElementsAre("3 1:103 rev 0 priority 0 |BACKDOOR subseven 22",
                            "4 1:104 rev 0 priority 0 |105"));
}

TEST(MapText, ReadsTheSecondFormOfSidMessages) {
    const std::string text =
        "#v2\n"
        "1 || 103 || 5 || trojan-activity || 1 || BACKDOOR subseven || url,x || url,y\n"
        "116 || 4 || 1 || NOCLASS || 0 || decode\n"
        "1 || 7 ||  ||  ||  || text\n";
    EXPECT_THAT(Summary(ReadMapText("any.map", text)),
                ElementsAre("2 1:103 rev 5 priority 1 trojan-activity|BACKDOOR subseven",
                            "3 116:4 rev 1 priority 0 |decode", "4 1:7 rev 0 priority 0 |text"));
}

TEST(MapText, TellsTheSecondFormByItsFirstLine) {
    EXPECT_THAT(Summary(ReadMapText("sid-msg.map", "1 || 103 || 5 || a || 1 || text\n")),
                ElementsAre("1 1:103 rev 5 priority 1 a|text"));
}

TEST(MapText, ReadsGeneratorMessages) {
    const std::string text = "116 || 1 || snort_decoder: Not IPv4 datagram\n1 || 2 || three\n";
    const std::vector<std::string> expected = {
        "1 116:1 rev 0 priority 0 |snort_decoder: Not IPv4 datagram",
        "2 1:2 rev 0 priority 0 |three"};
    EXPECT_EQ(expected, Summary(ReadMapText("gen-msg.map", text)));
    EXPECT_EQ(expected, Summary(ReadMapText("renamed", text)));
}

TEST(MapText, TakesTheNamedFormOverTheFilesName) {
    EXPECT_THAT(Summary(ReadMapText("gen-msg.map", "#v1\n5 || text\n")),
                ElementsAre("2 1:5 rev 0 priority 0 |text"));
}

TEST(MapText, RemarksLinesThatAreNone) {
    const RuleFileContent content =
        ReadMapText("sid-msg.map", "1 || good\nx || text\n0 || text\n5\n4294967296 || text\n");
    EXPECT_EQ(1U, content.rules.size());
    std::vector<uint32_t> lines;
    for (const RuleRemark& remark : content.remarks) {
        EXPECT_EQ(RuleRemarkKind::kBadMapLine, remark.kind);
        lines.push_back(remark.line);
    }
    EXPECT_THAT(lines, ElementsAre(2U, 3U, 4U, 5U));
}

TEST(MapText, TellsAMapFromRules) {
    EXPECT_TRUE(LooksLikeMap("# x\n\n1 || text\n"));
    EXPECT_FALSE(LooksLikeMap("alert tcp any any -> any any (content:\"||\"; sid:1;)\n"));
    EXPECT_FALSE(LooksLikeMap("# 1 || text\n"));
    EXPECT_FALSE(LooksLikeMap("1 | text\n"));
    EXPECT_FALSE(LooksLikeMap(""));
    EXPECT_THAT(ReadMapText("sid-msg.map", "").rules, IsEmpty());
}

}  // namespace
}  // namespace tarnctl
