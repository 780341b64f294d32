#include "tarnctl/snort_rules/rule_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace tarnctl {
namespace {

// "1:7 rev 2 line 3", with a word for what is not enabled or makes no alert.
std::vector<std::string> Summary(const RuleFileContent& content) {
    std::vector<std::string> summary;
    for (const SnortRule& rule : content.rules) {
        std::string text = std::to_string(rule.generator) + ":" + std::to_string(rule.sid) +
                           " rev " + std::to_string(rule.revision) + " line " +
                           std::to_string(rule.line);
        text += rule.enabled ? "" : " disabled";
        text += rule.silent ? " silent" : "";
        summary.push_back(text);
    }
    return summary;
}

std::vector<std::string> Remarks(const RuleFileContent& content) {
    std::vector<std::string> remarks;
    for (const RuleRemark& remark : content.remarks) {
        remarks.push_back(std::to_string(remark.line) + ": " + remark.text);
    }
    return remarks;
}

SnortRule OnlyRule(const std::string& text) {
    RuleFileContent content = ReadRuleText(text);
    EXPECT_EQ(1U, content.rules.size()) << text;
    return content.rules.empty() ? SnortRule{} : content.rules.front();
}

std::string MessageOf(const std::string& options) {
    return OnlyRule("alert tcp any any -> any 80 (" + options + " sid:1;)\n").message;
}

TEST(RuleText, ReadsEachFieldOfASnort2Rule) {
    const SnortRule rule = OnlyRule(
        R"(alert tcp $EXTERNAL_NET any -> $HOME_NET [80,8080] (msg:"SERVER-WEBAPP probe"; )"
        R"(flow:to_server,established; content:"/cgi-bin/ph"; fast_pattern:only; )"
        R"(metadata:policy balanced-ips drop, service http; reference:cve,1999-0067; )"
        R"(classtype:web-application-attack; sid:1762; priority:2; gid:3; rev:18;))"
        "\n");
    EXPECT_EQ(3U, rule.generator);
    EXPECT_EQ(1762U, rule.sid);
    EXPECT_EQ(18U, rule.revision);
    EXPECT_EQ(2U, rule.priority);
    EXPECT_EQ("SERVER-WEBAPP probe", rule.message);
    EXPECT_EQ("web-application-attack", rule.classification);
    EXPECT_EQ(1U, rule.line);
    EXPECT_TRUE(rule.MayAlert());
    EXPECT_FALSE(rule.fromMap);
}

TEST(RuleText, TakesTheDefaultsOfWhatARuleDoesNotName) {
    const SnortRule rule = OnlyRule("alert ( sid:7; )");
    EXPECT_EQ(kTextRuleGenerator, rule.generator);
    EXPECT_EQ(0U, rule.revision);
    EXPECT_EQ(0U, rule.priority);
    EXPECT_EQ("", rule.message);
    EXPECT_EQ("", rule.classification);
}

TEST(RuleText, ReadsSnort3RulesOverSeveralLinesWithoutBackslashes) {
    const RuleFileContent content = ReadRuleText(R"rules(
alert http
(
    msg:"SERVER-OTHER form";
    flow:to_server,established;

    http_uri;  # the sticky buffer; not a rule
    content:"/a)",fast_pattern;
    /* a comment; with )
       two lines; */
    service:http;
    classtype:attempted-admin;
    sid:41; rev:3;
)
alert file ( msg:"FILE form"; file_data; content:"x"; sid:42; rev:1; )
drop icmp any any -> any any ( sid:43; )
)rules");
    EXPECT_THAT(Summary(content),
                ElementsAre("1:41 rev 3 line 2", "1:42 rev 1 line 15", "1:43 rev 0 line 16"));
    EXPECT_EQ("SERVER-OTHER form", content.rules[0].message);
    EXPECT_EQ("attempted-admin", content.rules[0].classification);
    EXPECT_THAT(Remarks(content), IsEmpty());
}

TEST(RuleText, ReadsRulesJoinedByBackslashes) {
    const RuleFileContent content = ReadRuleText(
        "alert tcp any any -> \\\n"
        "    any 80 (msg:\"joined \\\n"
        "text\"; \\\r\n"
        "# a comment between\n"
        "    content:\"x\"; \\ \n"
        "    sid:50; rev:2;)\n"
        "alert tcp any any -> any any (sid:51;)\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:50 rev 2 line 1", "1:51 rev 0 line 7"));
    EXPECT_EQ("joined text", content.rules[0].message);
}

TEST(RuleText, ReadsBuiltInRules) {
    const RuleFileContent content = ReadRuleText(
        "alert ( msg:\"(decode) not IPv4 datagram\"; gid:116; sid:1; rev:2; priority:3; "
        "metadata: rule-type decode; classtype:protocol-command-decode; )\n"
        "alert ( msg: \"DECODE_IPV4_INVALID_HEADER_LEN\"; sid: 2; gid: 116; rev: 1; "
        "metadata: rule-type decode ; classtype:protocol-command-decode; )\n");
    EXPECT_THAT(Summary(content), ElementsAre("116:1 rev 2 line 1", "116:2 rev 1 line 2"));
    EXPECT_EQ("(decode) not IPv4 datagram", content.rules[0].message);
    EXPECT_EQ("DECODE_IPV4_INVALID_HEADER_LEN", content.rules[1].message);
    EXPECT_EQ(3U, content.rules[0].priority);
}

TEST(RuleText, TakesQuotesAndEscapesOffTheMessage) {
    EXPECT_EQ("say \"hello\"", MessageOf(R"(msg:"say \"hello\"";)"));
    EXPECT_EQ("a; b: c\\d", MessageOf(R"(msg:"a\; b\: c\\d";)"));
    EXPECT_EQ("a; b) c", MessageOf(R"(msg:"a; b) c";)"));
    EXPECT_EQ("keeps \\n", MessageOf(R"(msg:"keeps \n";)"));
    EXPECT_EQ("no quotes", MessageOf("msg: no quotes ;"));
    EXPECT_EQ("blanks", MessageOf("MSG : \"blanks\" ;"));
    EXPECT_EQ("sid:99; in a text", MessageOf("msg:\"sid:99; in a text\";"));
}

TEST(RuleText, FindsTheEndOfARuleDespiteParenthesesInItsOptions) {
    const RuleFileContent content = ReadRuleText(
        "alert tcp any any -> any any (reference:url,en.example.org/wiki/Probe_(test); "
        "pcre:\"/a(b|c)\\\"d;/\"; sid:1;)\n"
        "alert tcp any any -> any any (msg:\"no last semicolon\"; sid:2)\n"
        "alert tcp any $(PORTS) -> any any (content:!\"(\"; sid:3;) # a word after it\n"
        "alert ( sid:4; ) alert ( sid:5; )\n");
    EXPECT_THAT(Summary(content),
                ElementsAre("1:1 rev 0 line 1", "1:2 rev 0 line 2", "1:3 rev 0 line 3",
                            "1:4 rev 0 line 4", "1:5 rev 0 line 4"));
    EXPECT_THAT(Remarks(content), IsEmpty());
}

TEST(RuleText, CountsACommentedRuleAsDisabled) {
    const RuleFileContent content = ReadRuleText(
        "# alert tcp any any -> any any (msg:\"one line\"; sid:1; rev:4;)\n"
        "#alert tcp any any -> any any (msg:\"two lines\"; \\\n"
        "#   sid:2;)\n"
        "## alert http\n"
        "## (\n"
        "##    sid:3;\n"
        "## )\n"
        "alert tcp any any -> any any (sid:4;)\n"
        "alert ( sid:5; enable:no; )\n");
    EXPECT_THAT(
        Summary(content),
        ElementsAre("1:1 rev 4 line 1 disabled", "1:2 rev 0 line 2 disabled",
                    "1:3 rev 0 line 4 disabled", "1:4 rev 0 line 8", "1:5 rev 0 line 9 disabled"));
}

TEST(RuleText, CountsRulesBetweenBeginAndEndAsDisabled) {
    const RuleFileContent content = ReadRuleText(
        "#begin\n"
        "alert ( sid:1; )\n"
        "alert this is prose\n"
        "#end\n"
        "alert ( sid:2; )\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:1 rev 0 line 2 disabled", "1:2 rev 0 line 5"));
    EXPECT_THAT(Remarks(content), IsEmpty());
}

TEST(RuleText, LeavesCommentsThatOnlyResembleRules) {
    const RuleFileContent content = ReadRuleText(
        "# alert rules follow (see the manual)\n"
        "# alert when somebody (msg:\"open\n"
        "# drop\n"
        "# alert ( msg:\"no sid\"; )\n"
        "# log of changes (sid:abc;)\n"
        "alert ( sid:1; )\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:1 rev 0 line 6"));
    EXPECT_THAT(Remarks(content), IsEmpty());
}

TEST(RuleText, TellsRulesThatMakeNoAlert) {
    const RuleFileContent content = ReadRuleText(
        "pass tcp any any -> any any (sid:1;)\n"
        "log tcp any any -> any any (sid:2;)\n"
        "alert tcp any any -> any any (flowbits:set,a; flowbits:noalert; sid:3;)\n"
        "alert tcp any any -> any any (flowbits:set,noalert; sid:4;)\n"
        "alert tcp any any -> any any (noalert; sid:5;)\n"
        "file_id (gid:4; sid:6;)\n"
        "reject tcp any any -> any any (sid:7;)\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:1 rev 0 line 1 silent", "1:2 rev 0 line 2 silent",
                                              "1:3 rev 0 line 3 silent", "1:4 rev 0 line 4",
                                              "1:5 rev 0 line 5 silent", "4:6 rev 0 line 6 silent",
                                              "1:7 rev 0 line 7"));
}

TEST(RuleText, RemarksARuleWithoutASid) {
    const RuleFileContent content = ReadRuleText(
        "alert tcp any any -> any any (msg:\"a\";)\n"
        "alert tcp any any -> any any (msg:\"b\"; sid:0;)\n"
        "alert tcp any any -> any any (msg:\"c\"; sid:4294967296;)\n"
        "alert tcp any any -> any any (msg:\"d\"; sid:4294967295; rev:x;)\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:4294967295 rev 0 line 4"));
    EXPECT_THAT(Remarks(content), ElementsAre("1: the rule has no sid", "2: the rule has no sid",
                                              "3: \"4294967296\" is no number",
                                              "3: the rule has no sid", "4: \"x\" is no number"));
}

TEST(RuleText, RemarksARuleThatIsNotClosedAndReadsTheNextOne) {
    const RuleFileContent content = ReadRuleText(
        "alert tcp any any -> any any (msg:\"open; sid:1;)\n"
        "alert tcp any any -> any any (sid:2;)\n"
        "alert tcp any any -> any any\n"
        "\n"
        "alert tcp any any -> any any (sid:3; \\\n"
        "  msg:\"open\";\n"
        "# alert ( sid:4; )\n"
        "alert ( sid:5; )\n"
        "alert ( sid:6;\n");
    EXPECT_THAT(Summary(content),
                ElementsAre("1:2 rev 0 line 2", "1:4 rev 0 line 7 disabled", "1:5 rev 0 line 8"));
    const std::string text = "the rule's parentheses are not closed";
    EXPECT_THAT(Remarks(content),
                ElementsAre("1: " + text, "3: " + text, "5: " + text, "9: " + text));
}

TEST(RuleText, TakesOwnRuleTypesAsActions) {
    const RuleFileContent content = ReadRuleText(
        "ruletype redalert\n"
        "{\n"
        "    type alert\n"
        "    output alert_fast: red\n"
        "}\n"
        "redalert tcp any any -> any any (sid:1;)\n"
        "bluealert tcp any any -> any any (sid:2;)\n");
    EXPECT_THAT(Summary(content), ElementsAre("1:1 rev 0 line 6"));
}

TEST(RuleText, GivesTheDirectivesInOrder) {
    const RuleFileContent content = ReadRuleText(
        "\xEF\xBB\xBFvar RULE_PATH ../rules\r\n"
        "config classification: a-class,A class,2\n"
        "preprocessor frag3_global: \\\n"
        "    include no\n"
        "include $RULE_PATH/ \\\n"
        "x.rules\n");
    std::vector<std::string> directives;
    for (const RuleDirective& directive : content.directives) {
        directives.push_back(std::to_string(directive.line) + " " + directive.word + "|" +
                             directive.value);
    }
    EXPECT_THAT(directives, ElementsAre("1 var|RULE_PATH ../rules",
                                        "2 config|classification: a-class,A class,2",
                                        "5 include|$RULE_PATH/ x.rules"));
}

TEST(RuleText, ReadsManyOpenRulesOneByOne) {
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        text += "alert (\n# alert (\n#\n";
    }
    const RuleFileContent content = ReadRuleText(text);
    EXPECT_EQ(0U, content.rules.size());
    EXPECT_EQ(100000U, content.remarks.size());
}

}  // namespace
}  // namespace tarnctl
