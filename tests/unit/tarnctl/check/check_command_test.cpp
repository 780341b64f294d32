#include "tarnctl/check/check_command.h"

#include <gmock/gmock.h>

#include <set>

#include "support/file_text.h"
#include "support/source_dir.h"
#include "tarnctl/check/finding_kinds.h"
#include "unit/tarnctl/check/check_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using CheckReport = CheckFixture;
using CheckKeys = CheckFixture;
using CheckEntries = CheckFixture;
using CheckState = CheckFixture;
using CheckExitStatus = CheckFixture;
using CheckProtect = CheckFixture;

// An entry whose quarantine rule or user response is replaced.
std::string WithRule(const std::string& value) {
    return "se.7.severity = high\nse.7.msg = Name\nse.7.response = quarantine-traffic\n"
           "se.7.quarantine.rule = " +
           value + "\n";
}

TEST_F(CheckReport, MarksTheTextAndNamesReasonSuggestionAndWhatIsInForce) {
    Events(WithRule("quarantine-intruder-adress, duration: 600"));
    const std::string file = dir.File("tarn_event.conf");
    EXPECT_EQ(
        file +
            ":4:24: error: \"quarantine-intruder-adress\" is no word of this list; the reading "
            "ends here, and what follows is not taken [quarantine-stopped]\n"
            "  4 | se.7.quarantine.rule = quarantine-intruder-adress, duration: 600\n"
            "    |                        ^~~~~~~~~~~~~~~~~~~~~~~~~~\n"
            "  suggestion: quarantine-intruder-address\n"
            "  in force: entry 7: quarantine-intruder-address, quarantine-victim-address\n"
            "1 error, 0 warnings in 4 settings and 1 entry\n",
        Text());
    EXPECT_EQ(1, status);
}

TEST_F(CheckReport, SaysWhatWasReadWhereNothingIsWrong) {
    Events(GoodEntry(7) + GoodEntry(8));
    EXPECT_EQ("0 errors, 0 warnings in 10 settings and 2 entries\n", Text());
    EXPECT_EQ(0, status);
}

TEST_F(CheckReport, ColoursWhatATerminalShows) {
    Main("word\n");
    options.color = true;
    EXPECT_THAT(Text(), HasSubstr("\033[31merror\033[0m: "));
    Main("tarn.log.level = 3\ntarn.log.level = 4\n");
    EXPECT_THAT(Text(), HasSubstr("\033[33mwarning\033[0m: "));
}

TEST_F(CheckReport, ShowsTheCaretUnderATabThatIsWrittenOut) {
    Main("\tword\n");
    EXPECT_THAT(Text(), HasSubstr("  1 | \\x09word\n    |     ^~~~\n"));
}

TEST_F(CheckReport, ShowsTheMiddleOfALongLine) {
    Main("tarn.log.level = 1" + std::string(500, 'x') + "\n");
    const std::string text = Text();
    EXPECT_THAT(text, HasSubstr("x...\n"));
    EXPECT_GT(600U, text.size());
}

// The columns of a terminal, for any place of the mark in a long line.
TEST_F(CheckReport, FitsTheWidthOfATerminalUnlessAskedNotTo) {
    options.isTerminal = options.summary = true;
    const std::string begin =
        "se.7.severity = high\nse.7.msg = Name of an event that is long enough\n";
    for (size_t before = 0; before < 90; before += 5) {
        Events(begin + "se.7.response = " + std::string(before, ' ') + "quarantine-trafic, " +
               std::string(60, 'x') + "\n");
        for (const size_t width : {30U, 40U, 80U}) {
            options.width = width;
            options.wide = false;
            const std::string text = Text();
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line);) {
                // Paths are longer than any of these widths, and stay whole.
                EXPECT_TRUE(line.size() <= width || line.find('/') != std::string::npos) << line;
            }
            EXPECT_THAT(text, HasSubstr("quarantine-trafic"));
            // The mark is below the first letter of the word.
            const size_t word = text.find(" | ", text.find("\n  3 | ") + 1);
            const size_t marked = text.find("quarantine-trafic", word) - word;
            EXPECT_EQ(marked, text.find("^~~~", word) - text.find(" | ", word + 3)) << text;
        }
        options.wide = true;
        EXPECT_THAT(Text(), HasSubstr(std::string(60, 'x') + "\n"));
    }
}

TEST_F(CheckReport, SumsEachEntryUpInPlainWords) {
    options.summary = true;
    Events(
        "se.7.severity = high\nse.7.msg = Worm\nse.7.user.response = WithRaw,LOGEVIDENCE\n"
        "se.7.response = quarantine-traffic\n"
        "se.7.quarantine.rule = quarantine-worm, duration: 600, ratelimit: 10\n"
        "se.7.quarantine.rule = quarantine-icmp-type, quarantine-icmp-code\n"
        "se.8.severity = low\nse.8.msg = Ping\nse.8.user.response = DISPLAY:WithoutRaw\n"
        "se.8.response = none\n");
    const std::string text = Text();
    EXPECT_EQ(0U,
              text.find("7: reports \"Worm\" as high with its packet; blocks traffic by the "
                        "intruder's address and the victim's port for 10 minutes, above 10 bytes a "
                        "second, if the event is not ICMP; blocks traffic by the ICMP type and the "
                        "ICMP code for 1 hour, if the event is ICMP; takes packets\n"
                        "8: reports \"Ping\" as low; blocks nothing; takes no packets\n"))
        << text;
    (void)Run();
    ASSERT_EQ(2U, answer["entries"].size());
    EXPECT_EQ(7, answer["entries"][0]["id"]);
    EXPECT_EQ("high", answer["entries"][0]["severity"]);
    EXPECT_EQ(true, answer["entries"][0]["sendsPacket"]);
    EXPECT_EQ(true, answer["entries"][0]["logsPackets"]);
    EXPECT_EQ(2U, answer["entries"][0]["blocks"].size());
    EXPECT_EQ(false, answer["entries"][1]["sendsPacket"]);
    EXPECT_EQ(0U, answer["entries"][1]["blocks"].size());
}

TEST_F(CheckKeys, GetTheNearestNameAsASuggestion) {
    Main("tarn.evidencelog.packetcuont = 3\n");
    const auto finding = Only();
    EXPECT_EQ("unknown-key", finding["name"]);
    EXPECT_EQ("tarn.evidencelog.packetcount", finding["suggestion"]);
    EXPECT_EQ("tarn.evidencelog.packetcount keeps its former value", finding["inForce"]);
}

TEST_F(CheckKeys, ShowWhatANumberBecomes) {
    Main("tarn.log.level = 99\n");
    const auto finding = Only();
    EXPECT_EQ("number-out-of-range", finding["name"]);
    EXPECT_EQ("tarn.log.level = 6", finding["inForce"]);
    EXPECT_EQ(18, finding["column"]);
    EXPECT_EQ(2, finding["length"]);
}

TEST_F(CheckKeys, TakeALevelOfSixAsItIs) {
    Main("tarn.log.level = 6\n");
    EXPECT_EQ(0, Run());
}

TEST_F(CheckKeys, MayHaveAThreadOnEachCpuAndBothOnTheFirst) {
    for (const char* text :
         {"tarn.engine.cpu = 0\ntarn.snort.cpu = 0\n", "tarn.engine.cpu = 1\n",
          "tarn.debug.single = 1\ntarn.snort.cpu = 1\ntarn.engine.cpu = 1\n", ""}) {
        Config::s_debugSingle = Config::s_snortCpu = Config::s_engineCpu = 0;
        Main(text);
        (void)Run();
        EXPECT_EQ(std::string::npos, answer.dump().find("same-cpu")) << text;
    }
    Config::s_debugSingle = Config::s_snortCpu = Config::s_engineCpu = 0;
    Main("tarn.snort.cpu = 1\ntarn.engine.cpu = 1\n");
    (void)Run();
    EXPECT_NE(std::string::npos, answer.dump().find("both threads run on CPU 1"));
}

TEST_F(CheckKeys, NameACpuThatTheMachineDoesNotHave) {
    Main("tarn.engine.cpu = 100000\n");
    EXPECT_EQ("no-such-cpu", Only()["name"]);
}

TEST_F(CheckEntries, SuggestSecondsForADurationWithAUnit) {
    Events(WithRule("quarantine-worm, duration: 10m"));
    EXPECT_EQ("duration: 600", Only()["suggestion"]);
}

TEST_F(CheckEntries, SuggestTheWholeNameWhereTheIdIsPartOfTheFault) {
    Events(GoodEntry(7) + "se7.msg = x\n");
    EXPECT_EQ("se.7.msg", Only()["suggestion"]);
    Events(GoodEntry(7) + "se.7msg = x\n");
    EXPECT_EQ("se.7.msg", Only()["suggestion"]);
}

TEST_F(CheckEntries, SayOnlyOnceThatALineEndsWithACarriageReturn) {
    Events("se.7.severity = high\r\nse.7.msg = Name\r\nse.7.response = none\r\n");
    EXPECT_EQ(1, Run());
    EXPECT_THAT(FoundIn("tarn_event.conf"), ElementsAre(FoundPlace{"carriage-return", 1, 21},
                                                        FoundPlace{"carriage-return", 2, 16},
                                                        FoundPlace{"carriage-return", 3, 21}));
}

TEST_F(CheckEntries, ShowTheWholeOfAMisspeltNameOfANumber) {
    Events(
        "se.7.severity = high\nse.7.msg = Name\nse.7.response = quarantine-traffic\n"
        "se.7.quarantine.rule = quarantine-worm, durations: 600\n");
    const auto finding = Only();
    EXPECT_EQ("quarantine-stopped", finding["name"]);
    EXPECT_EQ(41U, finding["column"]);
    EXPECT_EQ(9U, finding["length"]);
    EXPECT_EQ("duration: 600", finding["suggestion"]);
}

TEST_F(CheckEntries, NameNumbersThatDoNotFitTheirField) {
    const auto with = [this](const std::string& number) {
        Events(
            "se.7.severity = high\nse.7.msg = Name\nse.7.response = quarantine-traffic\n"
            "se.7.quarantine.rule = quarantine-worm, duration: 9, " +
            number + "\n");
        (void)Run();
        return answer["findings"].empty() ? "" : answer["findings"][0]["name"].get<std::string>();
    };
    EXPECT_EQ("", with("ratelimit: 4294967295"));
    EXPECT_EQ("number-out-of-range", with("ratelimit: 4294967296"));
    EXPECT_EQ("", with("duration: 3162240000"));
    EXPECT_EQ("number-out-of-range", with("duration: 3162240001"));
    // Reads as 600.
    EXPECT_EQ("number-out-of-range", with("duration: -18446744073709551016"));
}

TEST_F(CheckEntries, SuggestNothingThatIsThereAlready) {
    Events(GoodEntry(7) + "se.0.msg = x\n");
    auto finding = Only();
    EXPECT_EQ("id-refused", finding["name"]);
    EXPECT_TRUE(finding["suggestion"].is_null());
    Events(
        "se.7.severity = high\nse.7.msg = Name\nse.7.response = quarantine-traffic, none\n"
        "se.7.quarantine.rule = quarantine-worm, duration: 9\n");
    finding = Only();
    EXPECT_EQ("response-stopped", finding["name"]);
    EXPECT_TRUE(finding["suggestion"].is_null());
    EXPECT_THAT(finding["reason"].get<std::string>(), HasSubstr("only where it stands alone"));
    Events("se.7.severity = high\nse.7.msg = Name\nse.7.quarantine.rule = none\n");
    (void)Run();
    EXPECT_THAT(answer["findings"][1]["reason"].get<std::string>(),
                HasSubstr("\"none\" is no word of this list"));
}

TEST_F(CheckEntries, SayNothingOfFreeTextInAUserResponse) {
    Events("se.7.severity = high\nse.7.msg = Name\nse.7.user.response = call the duty officer\n");
    EXPECT_EQ(0, Run());
    EXPECT_THAT(answer["findings"], IsEmpty());
}

TEST_F(CheckEntries, NameTextsThatAreLongerThanTheEventQueue) {
    Events("se.7.severity = high\nse.7.msg = " + std::string(0x800000, 'x') + "\n");
    EXPECT_EQ("text-too-long", Only()["name"]);
}

TEST_F(CheckEntries, TakeALongTextThatFits) {
    Events("se.7.severity = high\nse.7.msg = " + std::string(100000, 'x') + "\n");
    EXPECT_EQ(0, Run());
    EXPECT_THAT(answer["findings"], IsEmpty());
}

TEST_F(CheckEntries, NameASecondBlockOnceThoughItStaysPending) {
    Events(GoodEntry(7) + GoodEntry(8) + "se.7.msg = Again\nse.9.severity = urgent\n" +
           GoodEntry(10));
    EXPECT_EQ(1, Run());
    EXPECT_THAT(FoundIn("tarn_event.conf"), ElementsAre(FoundPlace{"second-block", 11, 4},
                                                        FoundPlace{"severity-unknown", 12, 17}));
}

TEST_F(CheckState, ServesBothFilesAndIsNamedOnce) {
    dir.Write("tarn.state", "word\n= 3\ntarn.log.level = 4\nse.7.msg = Name\nother = 1\n");
    EXPECT_EQ(1, Run());
    EXPECT_THAT(
        FoundIn("tarn.state"),
        ElementsAre(FoundPlace{"entry-without-severity", 4, 4}, FoundPlace{"missing-equals", 1, 1},
                    FoundPlace{"missing-name", 2, 1}, FoundPlace{"unknown-key", 5, 1}));
}

TEST_F(CheckState, IsNamedWhereTheMainFileOverrulesIt) {
    dir.Write("tarn.state", "tarn.log.level = 4\n");
    Main("tarn.log.level = 5\n");
    const auto finding = Only();
    EXPECT_EQ("state-overruled", finding["name"]);
    EXPECT_EQ(dir.File("tarn.state"), finding["file"]);
    EXPECT_EQ("tarn.log.level = 5", finding["inForce"]);
}

TEST_F(CheckExitStatus, IsOneForErrorsAndForWarningsWithStrict) {
    EXPECT_EQ(0, Run());
    Main("tarn.log.level = 3\ntarn.log.level = 4\n");
    EXPECT_EQ(0, Run());
    EXPECT_EQ(1, answer["warnings"]);
    options.strict = true;
    EXPECT_EQ(1, Run());
    options.strict = false;
    Main("word\n");
    EXPECT_EQ(1, Run());
    EXPECT_EQ(1, answer["errors"]);
}

TEST_F(CheckExitStatus, IsTwoWhereSomethingCannotBeChecked) {
    options.protects = {"nobody"};
    EXPECT_EQ(2, Run());
    EXPECT_THAT(err.str(), HasSubstr("tarnctl check: \"nobody\" is no address"));
}

TEST_F(CheckExitStatus, IsOneForAFileThatIsMissing) {
    options.eventFile = dir.File("missing");
    EXPECT_EQ(1, Run());
    EXPECT_EQ("file-missing", Only()["name"]);
}

TEST_F(CheckProtect, NamesEntriesThatCanBlockAProtectedAddress) {
    Events(GoodEntry(7));
    options.protects = {"192.0.2.53"};
    const auto finding = Only();
    EXPECT_EQ("can-block-protected", finding["name"]);
    EXPECT_EQ(5, finding["line"]);
}

TEST(FindingKinds, AreAllDifferentAndInTheManual) {
    const std::string manual = ReadFile(SourceDir() + "/docs/man/tarnctl-check.1");
    std::set<std::string> names;
    for (const tarnctl::FindingKind* kind : tarnctl::kinds::kAll) {
        EXPECT_TRUE(names.insert(kind->name).second) << kind->name;
        EXPECT_THAT(manual, HasSubstr("\n.B " + std::string(kind->name) + "\n"));
    }
}

}  // namespace
