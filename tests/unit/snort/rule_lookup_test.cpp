#include "snort/rule_lookup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

#include "support/temp_dir.h"

namespace {

// Buffers that held something else before, so that one that is left alone shows.
struct Rule {
    int result = -1;
    std::string sid;
    std::string msg;
};

const std::string kUntouched = "##";

class LookupRuleByLineTest : public testing::Test {
  protected:
    Rule Lookup(const std::string& content, long line, int sidSize = 64, int msgSize = 256) {
        return LookupIn(m_dir.Write("snort.rules", content).c_str(), line, sidSize, msgSize);
    }

    static Rule LookupIn(const char* path, long line, int sidSize = 64, int msgSize = 256) {
        std::array<char, 64> sid{'#', '#'};
        std::array<char, 256> msg{'#', '#'};
        Rule rule;
        rule.result = LookupRuleByLine(path, &line, sid.data(), &sidSize, msg.data(), &msgSize);
        rule.sid = sid.data();
        rule.msg = msg.data();
        return rule;
    }

    TempDir m_dir;
};

TEST_F(LookupRuleByLineTest, FindsTheRuleOnItsLineCountedFromOne) {
    const std::string rules =
        "# rules\n"
        "alert tcp any any -> any any (msg:\"One\"; sid:1000001; rev:1;)\n"
        "alert tcp any any -> any any (msg: \"Two words\" ; sid: 1000002 ; rev:1;)\n";
    const Rule second = Lookup(rules, 2);
    EXPECT_EQ(kRuleFound, second.result);
    EXPECT_EQ("1000001", second.sid);
    EXPECT_EQ("One", second.msg);
    const Rule third = Lookup(rules, 3);
    EXPECT_EQ("1000002", third.sid);
    EXPECT_EQ("Two words", third.msg);
}

TEST_F(LookupRuleByLineTest, TakesTheNamesInCapitalsOnlyWhereTheSmallOnesAreMissing) {
    const Rule capital = Lookup("(MSG:\"m\"; SID:5;)\n", 1);
    EXPECT_EQ("5", capital.sid);
    EXPECT_EQ("m", capital.msg);
    EXPECT_EQ("6", Lookup("(MSG:\"m\"; SID:5; sid:6;)\n", 1).sid);
    EXPECT_EQ(kRuleHasNoSid, Lookup("(msg:\"m\"; Sid:5;)\n", 1).result);
}

TEST_F(LookupRuleByLineTest, TellsALineWithoutASid) {
    const Rule rule = Lookup("(msg:\"m\";)\n", 1);
    EXPECT_EQ(kRuleHasNoSid, rule.result);
    EXPECT_EQ(kUntouched, rule.sid);
    EXPECT_EQ(kUntouched, rule.msg);
}

TEST_F(LookupRuleByLineTest, TellsALineWithoutAMessageAndYieldsTheSid) {
    const Rule rule = Lookup("(sid:5;)\n", 1);
    EXPECT_EQ(kRuleHasNoMessage, rule.result);
    EXPECT_EQ("5", rule.sid);
    EXPECT_EQ(kUntouched, rule.msg);
}

TEST_F(LookupRuleByLineTest, FindsNothingOnLineZeroOrBelow) {
    for (const long line : {0L, -1L, -2147483648L}) {
        EXPECT_EQ(kRuleHasNoSid, Lookup("(msg:\"m\"; sid:5;)\n", line).result) << line;
    }
}

TEST_F(LookupRuleByLineTest, FindsNothingBehindTheEndOfTheFile) {
    for (const char* const rules : {"(msg:\"m\"; sid:5;)\n", "(msg:\"m\"; sid:5;)", ""}) {
        EXPECT_EQ(kRuleHasNoSid, Lookup(rules, 2).result) << rules;
        EXPECT_EQ(kRuleHasNoSid, Lookup(rules, 2147483647).result) << rules;
    }
}

TEST_F(LookupRuleByLineTest, FindsALastLineWithoutItsNewline) {
    EXPECT_EQ(kRuleFound, Lookup("\n(msg:\"m\"; sid:5;)", 2).result);
}

TEST_F(LookupRuleByLineTest, GoesToTheEndOfTheLineWithoutASemicolon) {
    const Rule rule = Lookup("msg:\"to the end\" sid:77", 1);
    EXPECT_EQ("77", rule.sid);
    EXPECT_EQ("to the end\" sid:77", rule.msg);
}

TEST_F(LookupRuleByLineTest, StripsBlanksThenQuotesAndNothingBetweenThem) {
    EXPECT_EQ(" in quotes ", Lookup("sid:1; msg:  \"\" in quotes \"\"  ;", 1).msg);
    EXPECT_EQ("\t1\t", Lookup("sid:\t1\t; msg:m;", 1).sid);
}

TEST_F(LookupRuleByLineTest, KeepsTakingASidWithinTheMessageForTheOption) {
    EXPECT_EQ("9 and more\"", Lookup("(msg:\"about sid: 9 and more\"; sid:5;)\n", 1).sid);
}

TEST_F(LookupRuleByLineTest, CutsToTheBuffersAndClearsThem) {
    const Rule rule = Lookup("sid:123456789; msg:abcdefghi;", 1, 4, 3);
    EXPECT_EQ(kRuleFound, rule.result);
    EXPECT_EQ("123", rule.sid);
    EXPECT_EQ("ab", rule.msg);
    const std::string longText(1000, 'x');
    const Rule cut = Lookup("sid:" + longText + "; msg:" + longText, 1);
    EXPECT_EQ(cut.sid, longText.substr(0, 63));
    EXPECT_EQ(cut.msg, longText.substr(0, 255));
}

TEST_F(LookupRuleByLineTest, KeepsThrowingWhenNothingIsLeftOfASidOrMessage) {
    for (const char* const rule :
         {"(msg:\"m\"; sid:;)", "(msg:\"m\"; sid: ;)", "sid:", "(sid:5; msg:;)", "(sid:5; msg: ;)",
          "(sid:5; msg:\"\";)", "(sid:5; msg:\";)", "(sid:5; msg:"}) {
        EXPECT_THROW(Lookup(rule, 1), std::out_of_range) << rule;
    }
}

TEST_F(LookupRuleByLineTest, TellsAPathThatIsNotNamedFromAFileThatIsMissing) {
    EXPECT_EQ(kRuleFileNotNamed, LookupIn(nullptr, 1).result);
    EXPECT_EQ(kRuleFileNotNamed, LookupIn("", 1).result);
    EXPECT_EQ(kRuleFileMissing, LookupIn(m_dir.File("none").c_str(), 1).result);
}

TEST_F(LookupRuleByLineTest, GivesTheNumbersThatItsCallersCompareWith) {
    EXPECT_EQ(0, Lookup("sid:1; msg:m;", 1).result);
    EXPECT_EQ(1, Lookup("msg:m;", 1).result);
    EXPECT_EQ(2, Lookup("sid:1;", 1).result);
    EXPECT_EQ(5, LookupIn(m_dir.File("none").c_str(), 1).result);
    EXPECT_EQ(6, LookupIn("", 1).result);
}

// A user who may read everything opens the file all the same, so that the case runs as another.
TEST_F(LookupRuleByLineTest, KeepsAFileThatCannotBeOpenedForFoundWithNothingStored) {
    const std::string path = m_dir.Write("snort.rules", "sid:5; msg:m;");
    ASSERT_EQ(0, chmod(m_dir.Path().c_str(), 0755));
    ASSERT_EQ(0, chmod(path.c_str(), 0));
    EXPECT_EXIT(
        {
            constexpr uid_t kNobody = 65534;
            const bool isOther = geteuid() != 0 || seteuid(kNobody) == 0;
            const Rule rule = LookupIn(path.c_str(), 1);
            _exit(isOther && rule.result == kRuleFound && rule.sid == kUntouched &&
                          rule.msg == kUntouched
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LookupRuleByLineTest, ReadsTheFileAfresh) {
    EXPECT_EQ("1", Lookup("sid:1; msg:m;", 1).sid);
    EXPECT_EQ("2", Lookup("sid:2; msg:m;", 1).sid);
}

}  // namespace
