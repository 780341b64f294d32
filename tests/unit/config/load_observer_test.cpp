#include "config/load_observer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <vector>

#include "unit/config/config_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct File {
    std::string name;
    int kind;
    int error;
    bool operator==(const File&) const = default;
};

struct Closed {
    uint32_t id;
    bool entered;
    bool operator==(const Closed&) const = default;
};

class Recorder final : public LoadObserver {
  public:
    bool OnFile(const char* path, int kind, int error) override {
        files.push_back({std::string(path).substr(std::string(path).rfind('/') + 1), kind, error});
        return readAll;
    }
    void OnLine(const LineRead& line) override {
        lines.push_back(line);
        lines.back().text = {};
        texts.emplace_back(line.text);
    }
    void OnEntryClosed(uint32_t id, bool entered) override { closed.push_back({id, entered}); }

    bool readAll = false;
    std::vector<File> files;
    std::vector<LineRead> lines;
    std::vector<std::string> texts;
    std::vector<Closed> closed;
};

class LoadObserverTest : public ConfigFixture {
  protected:
    LoadObserverTest() { Config::s_observer = &seen; }
    ~LoadObserverTest() override { Config::s_observer = nullptr; }

    // The one line of a file that holds nothing else.
    const LineRead& Main(const std::string& line) {
        LoadMain(line + "\n");
        EXPECT_EQ(1U, seen.lines.size()) << line;
        return seen.lines.back();
    }
    const LineRead& Event(const std::string& line) {
        LoadEvents(line + "\n");
        EXPECT_EQ(1U, seen.lines.size()) << line;
        return seen.lines.back();
    }

    Recorder seen;
};

TEST_F(LoadObserverTest, LearnsOfEachFileWithTheReasonWhyItIsNotRead) {
    LoadMain("");
    EXPECT_THAT(seen.files, ElementsAre(File{"tarn.state", Config::kMainFile, ENOENT},
                                        File{"tarn.conf", Config::kMainFile, 0}));
    EXPECT_EQ(dir.File("tarn.conf"), Config::s_configFile);
}

TEST_F(LoadObserverTest, MayHaveAFileReadThatCannotBeWritten) {
    const std::string path = dir.Write("tarn.conf", "tarn.engine.crm = 4\n");
    ASSERT_EQ(0, chmod(path.c_str(), 0444));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    const bool superuser = geteuid() == 0;  // to whom no file is read-only
    if (superuser && seteuid(65534) != 0) {
        GTEST_SKIP() << "runs as the superuser in a namespace without other users";
    }
    Config::Load(path.c_str(), Config::kMainFile);
    const int without = Config::s_engineCrm;
    seen.readAll = true;
    Config::Load(path.c_str(), Config::kMainFile);
    if (superuser) {
        ASSERT_EQ(0, seteuid(0));
    }
    EXPECT_EQ(2, without);
    EXPECT_EQ(4, Config::s_engineCrm);
    EXPECT_EQ((File{"tarn.conf", Config::kMainFile, EACCES}), seen.files.back());
}

TEST_F(LoadObserverTest, IsNotToldOfEmptyLinesAndCommentsButCountsThem) {
    LoadMain("\n# comment\n \t\n  tarn.log.level = 4\n");
    ASSERT_EQ(1U, seen.lines.size());
    EXPECT_EQ(4U, seen.lines[0].number);
    EXPECT_EQ("  tarn.log.level = 4", seen.texts[0]);
    EXPECT_EQ(Config::kMainFile, seen.lines[0].kind);
    EXPECT_EQ(LineRead::Outcome::kApplied, seen.lines[0].outcome);
    EXPECT_EQ(2U, seen.lines[0].nameAt);
    EXPECT_EQ(14U, seen.lines[0].nameLength);
    EXPECT_EQ(19U, seen.lines[0].valueAt);
    EXPECT_EQ("tarn.log.level", seen.lines[0].name);
    EXPECT_EQ("4", seen.lines[0].value);
}

TEST_F(LoadObserverTest, CountsTheLinesOfEachFileFromOne) {
    dir.Write("tarn.state", "\ntarn.log.level = 5\n");
    LoadMain("tarn.log.level = 4\n");
    ASSERT_EQ(2U, seen.lines.size());
    EXPECT_EQ(2U, seen.lines[0].number);
    EXPECT_EQ(1U, seen.lines[1].number);
}

TEST_F(LoadObserverTest, LearnsWhyALineIsDropped) {
    LoadMain("word\n =3\ntarn.levels = 4\nse.7.msg = x\n");
    ASSERT_EQ(4U, seen.lines.size());
    EXPECT_EQ(LineRead::Outcome::kMissingValue, seen.lines[0].outcome);
    EXPECT_EQ(LineRead::Outcome::kMissingName, seen.lines[1].outcome);
    EXPECT_EQ(1U, seen.lines[1].nameAt);
    EXPECT_EQ(LineRead::Outcome::kUnknownName, seen.lines[2].outcome);
    EXPECT_EQ(LineRead::Outcome::kUnknownName, seen.lines[3].outcome);
}

TEST_F(LoadObserverTest, LearnsWhatANumberBecomes) {
    const LineRead& line = Main("tarn.log.level = 99x");
    EXPECT_TRUE(line.isNumber);
    EXPECT_EQ(99, line.numberRead);
    EXPECT_EQ(2U, line.numberEnd);
    EXPECT_EQ(6, line.numberStored);
}

TEST_F(LoadObserverTest, SeesTheWholeOfANumberThatIsCutToThirtyTwoBits) {
    const LineRead& line = Main("tarn.evidencelog.maxkbytes = 4294967297");
    EXPECT_EQ(4294967297, line.numberRead);
    EXPECT_EQ(1, line.numberStored);
}

TEST_F(LoadObserverTest, SeesNoNumberInAText) {
    EXPECT_FALSE(Main("tarn.log.file = 5").isNumber);
}

TEST_F(LoadObserverTest, LearnsWhereTheIdAndTheKeyOfANameStand) {
    const LineRead& line = Event("se.12x.msg.text = name");
    EXPECT_EQ(LineRead::Outcome::kApplied, line.outcome);
    EXPECT_EQ(kEventKeyMessage, line.eventKey);
    EXPECT_EQ(12U, line.id);
    EXPECT_EQ(5U, line.keyTrace.idEnd);
    EXPECT_EQ(6U, line.keyTrace.keyBegin);
    EXPECT_EQ(10U, line.keyTrace.keyEnd);
}

TEST_F(LoadObserverTest, LearnsWhichNamesAreRefused) {
    LoadEvents("se.7.colour = 1\nse.0.msg = x\nother = 1\nse.7.severity = urgent\n");
    ASSERT_EQ(4U, seen.lines.size());
    EXPECT_EQ(LineRead::Outcome::kRefused, seen.lines[0].outcome);
    EXPECT_EQ(kEventKeyNone, seen.lines[0].eventKey);
    EXPECT_EQ(LineRead::Outcome::kRefused, seen.lines[1].outcome);
    EXPECT_EQ(kEventKeyMessage, seen.lines[1].eventKey);
    EXPECT_EQ(0U, seen.lines[1].id);
    EXPECT_EQ(LineRead::Outcome::kUnknownName, seen.lines[2].outcome);
    EXPECT_EQ(LineRead::Outcome::kRefused, seen.lines[3].outcome);
    EXPECT_EQ(7U, seen.lines[3].id);
}

TEST_F(LoadObserverTest, LearnsTheFlagsOfAValue) {
    LoadEvents(
        "se.7.severity = high\nse.7.user.response = LOGEVIDENCE\nse.7.response = "
        "quarantine-traffic\n");
    ASSERT_EQ(3U, seen.lines.size());
    EXPECT_EQ(3U, seen.lines[0].flags);
    EXPECT_EQ(0x41U, seen.lines[1].flags);
    EXPECT_EQ(0x0CU, seen.lines[2].flags);
    EXPECT_EQ(1U, seen.lines[2].list.entries.size());
}

TEST_F(LoadObserverTest, LearnsHowFarAListIsRead) {
    const LineRead& line =
        Event("se.7.quarantine.rule = quarantine-intruder-port, quarantine-worm, duration: 60s");
    EXPECT_EQ(0x009U, line.blockRule.flags);
    EXPECT_EQ(60U, line.blockRule.duration);
    ASSERT_EQ(3U, line.list.entries.size());
    EXPECT_EQ(0U, line.list.entries[0].begin);
    EXPECT_EQ(24U, line.list.entries[0].end);
    EXPECT_EQ(0U, line.list.entries[0].erasedFlags);
    EXPECT_EQ(26U, line.list.entries[1].begin);
    EXPECT_EQ(0x002U, line.list.entries[1].erasedFlags);
    EXPECT_EQ(ListTrace::Item::kDuration, line.list.entries[2].item);
    EXPECT_EQ(43U, line.list.entries[2].begin);
    EXPECT_EQ(53U, line.list.entries[2].numberBegin);
    EXPECT_EQ(55U, line.list.entries[2].end);
    EXPECT_EQ(60U, line.list.entries[2].number);
    EXPECT_EQ(ListTrace::Stop::kTextAfterNumber, line.list.stop);
    EXPECT_EQ(55U, line.list.stoppedAt);
    EXPECT_FALSE(line.list.hasTrailingComma);
}

TEST_F(LoadObserverTest, LearnsOfEntriesThatAreClosedAndRefused) {
    LoadEvents("se.7.msg = a\nse.8.msg = b\nse.7.msg = c\n");
    EXPECT_THAT(seen.closed, ElementsAre(Closed{7, true}, Closed{8, true}, Closed{7, false}));
}

TEST_F(LoadObserverTest, IsNotToldOfAnEntryWhereNoneIsPending) {
    LoadEvents("# nothing\n");
    EXPECT_THAT(seen.closed, IsEmpty());
}

ListTrace TraceOf(const char* value) {
    BlockRule rule;
    ListTrace trace;
    (void)ParseBlockRule(value, &rule, &trace);
    return trace;
}

TEST(ListTraceTest, NamesTheReasonWhyTheReadingEnds) {
    EXPECT_EQ(ListTrace::Stop::kNowhere, TraceOf("quarantine-worm").stop);
    EXPECT_EQ(ListTrace::Stop::kUnknownWord, TraceOf("quarantine-worm, block").stop);
    EXPECT_EQ(17U, TraceOf("quarantine-worm, block").stoppedAt);
    EXPECT_EQ(ListTrace::Stop::kNoComma, TraceOf("quarantine-worm block").stop);
    EXPECT_EQ(16U, TraceOf("quarantine-worm block").stoppedAt);
    EXPECT_EQ(ListTrace::Stop::kNoColon, TraceOf("duration 60").stop);
    EXPECT_EQ(9U, TraceOf("duration 60").stoppedAt);
    EXPECT_EQ(ListTrace::Stop::kNoNumber, TraceOf("ratelimit:").stop);
    EXPECT_EQ(10U, TraceOf("ratelimit:").stoppedAt);
}

TEST(ListTraceTest, ShowsANumberWithoutDigitsAsOneOfNoLength) {
    const ListTrace trace = TraceOf("duration:,ratelimit:3");
    ASSERT_EQ(2U, trace.entries.size());
    EXPECT_EQ(trace.entries[0].end, trace.entries[0].numberBegin);
    EXPECT_EQ(ListTrace::Item::kRateLimit, trace.entries[1].item);
    EXPECT_LT(trace.entries[1].numberBegin, trace.entries[1].end);
}

TEST(ListTraceTest, ShowsARateLimitAsItWasReadBeforeItIsCut) {
    EXPECT_EQ(4294967297U, TraceOf("ratelimit:4294967297").entries.at(0).number);
}

TEST(ListTraceTest, TellsATrailingComma) {
    EXPECT_TRUE(TraceOf("quarantine-worm, ").hasTrailingComma);
    EXPECT_FALSE(TraceOf("quarantine-worm").hasTrailingComma);
    uint32_t flags = 0;
    ListTrace trace;
    EXPECT_TRUE(ParseResponse("quarantine-traffic,", &flags, &trace));
    EXPECT_TRUE(trace.hasTrailingComma);
}

TEST(ListTraceTest, BeginsAnewWithEachValue) {
    ListTrace trace;
    BlockRule rule;
    EXPECT_FALSE(ParseBlockRule("quarantine-worm,,", &rule, &trace));
    EXPECT_TRUE(ParseBlockRule("duration:1", &rule, &trace));
    EXPECT_EQ(1U, trace.entries.size());
    EXPECT_EQ(ListTrace::Stop::kNowhere, trace.stop);
    EXPECT_EQ(0U, trace.stoppedAt);
    uint32_t flags = 0;
    EXPECT_FALSE(ParseResponse("", &flags, &trace));
    EXPECT_THAT(trace.entries, IsEmpty());
}

TEST(KnownWords, AreAllThatTheParserTakes) {
    for (const std::string& word : BlockRuleWords()) {
        const ListTrace trace = TraceOf(word.c_str());
        EXPECT_NE(ListTrace::Stop::kUnknownWord, trace.stop) << word;
    }
    EXPECT_EQ(15U, BlockRuleWords().size());
    for (const std::string& word : ResponseWords()) {
        uint32_t flags = 0;
        EXPECT_TRUE(ParseResponse(word.c_str(), &flags)) << word;
    }
    EXPECT_EQ(5U, ResponseWords().size());
    for (const std::string& word : SeverityWords()) {
        uint32_t severity = 0;
        EXPECT_TRUE(ParseSeverity(word.c_str(), &severity));
        EXPECT_NE(0U, severity) << word;
    }
    EXPECT_THAT(EventKeyNames(), ElementsAre("severity", "rule", "msg", "user.response", "response",
                                             "quarantine.rule"));
    EXPECT_THAT(UserResponseWords(),
                ElementsAre("LOGEVIDENCE", "WithRaw", "Connection", "AllInterfaces", "Interface"));
    EXPECT_EQ(15U, Config::SettingNames().size());
    for (const std::string& name : Config::SettingNames()) {
        EXPECT_EQ(0U, name.find("tarn.")) << name;
    }
}

}  // namespace
