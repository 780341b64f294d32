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
    EXPECT_EQ(second.result, kRuleFound);
    EXPECT_EQ(second.sid, "1000001");
    EXPECT_EQ(second.msg, "One");
    const Rule third = Lookup(rules, 3);
    EXPECT_EQ(third.sid, "1000002");
    EXPECT_EQ(third.msg, "Two words");
}

TEST_F(LookupRuleByLineTest, TakesTheNamesInCapitalsOnlyWhereTheSmallOnesAreMissing) {
    const Rule capital = Lookup("(MSG:\"m\"; SID:5;)\n", 1);
    EXPECT_EQ(capital.sid, "5");
    EXPECT_EQ(capital.msg, "m");
    EXPECT_EQ(Lookup("(MSG:\"m\"; SID:5; sid:6;)\n", 1).sid, "6");
    EXPECT_EQ(Lookup("(msg:\"m\"; Sid:5;)\n", 1).result, kRuleHasNoSid);
}

TEST_F(LookupRuleByLineTest, TellsALineWithoutASid) {
    const Rule rule = Lookup("(msg:\"m\";)\n", 1);
    EXPECT_EQ(rule.result, kRuleHasNoSid);
    EXPECT_EQ(rule.sid, kUntouched);
    EXPECT_EQ(rule.msg, kUntouched);
}

TEST_F(LookupRuleByLineTest, TellsALineWithoutAMessageAndYieldsTheSid) {
    const Rule rule = Lookup("(sid:5;)\n", 1);
    EXPECT_EQ(rule.result, kRuleHasNoMessage);
    EXPECT_EQ(rule.sid, "5");
    EXPECT_EQ(rule.msg, kUntouched);
}

TEST_F(LookupRuleByLineTest, FindsNothingOnLineZeroOrBelow) {
    for (const long line : {0L, -1L, -2147483648L}) {
        EXPECT_EQ(Lookup("(msg:\"m\"; sid:5;)\n", line).result, kRuleHasNoSid) << line;
    }
}

TEST_F(LookupRuleByLineTest, FindsNothingBehindTheEndOfTheFile) {
    for (const char* const rules : {"(msg:\"m\"; sid:5;)\n", "(msg:\"m\"; sid:5;)", ""}) {
        EXPECT_EQ(Lookup(rules, 2).result, kRuleHasNoSid) << rules;
        EXPECT_EQ(Lookup(rules, 2147483647).result, kRuleHasNoSid) << rules;
    }
}

TEST_F(LookupRuleByLineTest, FindsALastLineWithoutItsNewline) {
    EXPECT_EQ(Lookup("\n(msg:\"m\"; sid:5;)", 2).result, kRuleFound);
}

TEST_F(LookupRuleByLineTest, GoesToTheEndOfTheLineWithoutASemicolon) {
    const Rule rule = Lookup("msg:\"to the end\" sid:77", 1);
    EXPECT_EQ(rule.sid, "77");
    EXPECT_EQ(rule.msg, "to the end\" sid:77");
}

TEST_F(LookupRuleByLineTest, StripsBlanksThenQuotesAndNothingBetweenThem) {
    EXPECT_EQ(Lookup("sid:1; msg:  \"\" in quotes \"\"  ;", 1).msg, " in quotes ");
    EXPECT_EQ(Lookup("sid:\t1\t; msg:m;", 1).sid, "\t1\t");
}

TEST_F(LookupRuleByLineTest, KeepsTakingASidWithinTheMessageForTheOption) {
    EXPECT_EQ(Lookup("(msg:\"about sid: 9 and more\"; sid:5;)\n", 1).sid, "9 and more\"");
}

TEST_F(LookupRuleByLineTest, CutsToTheBuffersAndClearsThem) {
    const Rule rule = Lookup("sid:123456789; msg:abcdefghi;", 1, 4, 3);
    EXPECT_EQ(rule.result, kRuleFound);
    EXPECT_EQ(rule.sid, "123");
    EXPECT_EQ(rule.msg, "ab");
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
    EXPECT_EQ(LookupIn(nullptr, 1).result, kRuleFileNotNamed);
    EXPECT_EQ(LookupIn("", 1).result, kRuleFileNotNamed);
    EXPECT_EQ(LookupIn(m_dir.File("none").c_str(), 1).result, kRuleFileMissing);
}

// A user who may read everything opens the file all the same, so that the case runs as another.
TEST_F(LookupRuleByLineTest, KeepsAFileThatCannotBeOpenedForFoundWithNothingStored) {
    const std::string path = m_dir.Write("snort.rules", "sid:5; msg:m;");
    ASSERT_EQ(chmod(m_dir.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
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
    EXPECT_EQ(Lookup("sid:1; msg:m;", 1).sid, "1");
    EXPECT_EQ(Lookup("sid:2; msg:m;", 1).sid, "2");
}

}  // namespace
