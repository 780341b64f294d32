#include "config/config.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "unit/config/config_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ConfigParseLine = ConfigFixture;
using ConfigApplySetting = ConfigFixture;
using ConfigLoad = ConfigFixture;
using ConfigDump = ConfigFixture;

TEST_F(ConfigParseLine, LogsALineWithoutAnEqualsSign) {
    Config::ParseLine("  tarn.log.level \t", Config::kMainFile);
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_THAT(log.Messages(),
                ElementsAre("Config file entry is missing value: 'tarn.log.level'"));
}

TEST_F(ConfigParseLine, LogsALineWithoutAName) {
    Config::ParseLine(" =3", Config::kMainFile);
    EXPECT_THAT(log.Messages(), ElementsAre("Config file entry is missing parameter name: '=3'"));
}

TEST_F(ConfigParseLine, LogsTheLinesThatAreNoSettingAtLevelTwo) {
    vald::Log::SetLevel(1);
    Config::ParseLine("word", Config::kMainFile);
    Config::ParseLine("=3", Config::kMainFile);
    EXPECT_THAT(log.Messages(), IsEmpty());
    vald::Log::SetLevel(2);
    Config::ParseLine("word", Config::kMainFile);
    Config::ParseLine("=3", Config::kMainFile);
    EXPECT_EQ(2U, log.Messages().size());
}

TEST_F(ConfigParseLine, ReadsAnEmptyValueAsZero) {
    Config::ParseLine("tarn.log.level=", Config::kMainFile);
    EXPECT_EQ(0, Config::s_logLevel);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigParseLine, IgnoresEmptyLinesAndComments) {
    for (const char* line : {"", " \t", "# tarn.log.level = 1", "\t # tarn.log.level = 1"}) {
        Config::ParseLine(line, Config::kMainFile);
    }
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigParseLine, StripsBlanksAndTabsAroundNameAndValue) {
    Config::ParseLine("\t tarn.log.file \t=\t /a path/log \t", Config::kMainFile);
    EXPECT_EQ("/a path/log", Config::s_logFile);
}

TEST_F(ConfigParseLine, KeepsASecondEqualsSignInTheValue) {
    Config::ParseLine("tarn.log.file = /a=b", Config::kMainFile);
    EXPECT_EQ("/a=b", Config::s_logFile);
}

TEST_F(ConfigParseLine, KeepsANumberSignInTheValue) {
    Config::ParseLine("tarn.log.file = x # y", Config::kMainFile);
    EXPECT_EQ("x # y", Config::s_logFile);
}

TEST_F(ConfigParseLine, KeepsACarriageReturnInTheValue) {
    Config::ParseLine("tarn.log.file = /log\r", Config::kMainFile);
    Config::ParseLine("tarn.log.level = 5\r", Config::kMainFile);
    EXPECT_EQ("/log\r", Config::s_logFile);
    EXPECT_EQ(5, Config::s_logLevel);
}

TEST_F(ConfigParseLine, SetsNothingForAnotherKindOfFile) {
    Config::ParseLine("tarn.log.level = 5", 2);
    Config::ParseLine("se.7.msg = seven", 2);
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_EQ(0U, Config::s_eventTable.PendingId());
}

TEST_F(ConfigParseLine, PassesEachKindToItsOwnKeys) {
    Config::ParseLine("tarn.log.level = 5", Config::kEventFile);
    Config::ParseLine("se.7.msg = seven", Config::kMainFile);
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_EQ(0U, Config::s_eventTable.PendingId());
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigApplySetting, KnowsEveryKey) {
    const std::pair<const char*, std::atomic<int>*> numbers[] = {
        {"tarn.log.level", &Config::s_logLevel},
        {"tarn.log.maxfiles", &Config::s_logMaxFiles},
        {"tarn.log.maxfilesize", &Config::s_logMaxFileSize},
        {"tarn.snort.cpu", &Config::s_snortCpu},
        {"tarn.engine.cpu", &Config::s_engineCpu},
        {"tarn.engine.crm", &Config::s_engineCrm},
        {"tarn.debug.single", &Config::s_debugSingle},
        {"tarn.evidencelog.maxfiles", &Config::s_evidenceMaxFiles},
        {"tarn.evidencelog.maxkbytes", &Config::s_evidenceMaxKBytes},
        {"tarn.evidencelog.packetcount", &Config::s_evidencePacketCount},
        {"tarn.evidencelog.file.timeout", &Config::s_evidenceFileTimeout},
        {"tarn.evidencelog.bufferctrlsize", &Config::s_evidenceBufferCtrlSize},
        {"tarn.evidencelog.suppress", &Config::s_evidenceSuppress},
    };
    int value = 0;
    for (const auto& [name, member] : numbers) {
        value = value % 5 + 1;
        const int wanted = member == &Config::s_evidenceFileTimeout ? 20 : value;
        EXPECT_TRUE(Config::ApplySetting(name, std::to_string(wanted))) << name;
        EXPECT_EQ(wanted, *member) << name;
    }
    EXPECT_TRUE(Config::ApplySetting("tarn.log.file", "/log"));
    EXPECT_EQ("/log", Config::s_logFile);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.fileformat", "text"));
    EXPECT_EQ("text", Config::s_evidenceFileFormat);
}

TEST_F(ConfigApplySetting, RefusesANameItDoesNotKnowWithoutAMessage) {
    EXPECT_FALSE(Config::ApplySetting("", "1"));
    EXPECT_FALSE(Config::ApplySetting("tarn.log.levels", "1"));
    EXPECT_FALSE(Config::ApplySetting("TARN.log.level", "1"));
    EXPECT_EQ(3, Config::s_logLevel);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

struct Case {
    const char* text;
    int number;
};

void ExpectNumbers(const char* name, const std::atomic<int>& member,
                   std::initializer_list<Case> cases) {
    for (const auto& [text, number] : cases) {
        EXPECT_TRUE(Config::ApplySetting(name, text));
        EXPECT_EQ(number, member) << name << " = " << text;
    }
}

TEST_F(ConfigApplySetting, ClampsTheLogLevel) {
    ExpectNumbers("tarn.log.level", Config::s_logLevel,
                  {{"99", 6}, {"6", 6}, {"5", 5}, {"1", 1}, {"0", 0}, {"-1", 0}});
}

TEST_F(ConfigApplySetting, KeepsThreeAsTheFallbackOfTheNumberOfLogFiles) {
    ExpectNumbers("tarn.log.maxfiles", Config::s_logMaxFiles, {{"1", 1}, {"0", 3}, {"-7", 3}});
}

TEST_F(ConfigApplySetting, FallsBackForAFileSizeOfZeroOrBelow) {
    ExpectNumbers("tarn.log.maxfilesize", Config::s_logMaxFileSize,
                  {{"1", 1}, {"0", 2097152}, {"-1", 2097152}});
}

TEST_F(ConfigApplySetting, MakesANegativeCpuZero) {
    ExpectNumbers("tarn.snort.cpu", Config::s_snortCpu, {{"3", 3}, {"-1", 0}});
    ExpectNumbers("tarn.engine.cpu", Config::s_engineCpu, {{"3", 3}, {"-1", 0}});
}

TEST_F(ConfigApplySetting, FallsBackForAChannelOfZeroOrBelow) {
    ExpectNumbers("tarn.engine.crm", Config::s_engineCrm, {{"7", 7}, {"0", 2}, {"-1", 2}});
}

TEST_F(ConfigApplySetting, MakesANegativeSingleThreadModeZero) {
    ExpectNumbers("tarn.debug.single", Config::s_debugSingle, {{"1", 1}, {"7", 7}, {"-1", 0}});
}

TEST_F(ConfigApplySetting, LeavesTheEvidenceNumbersUnchanged) {
    ExpectNumbers("tarn.evidencelog.maxfiles", Config::s_evidenceMaxFiles, {{"0", 0}, {"-1", -1}});
    ExpectNumbers("tarn.evidencelog.suppress", Config::s_evidenceSuppress, {{"0", 0}, {"-1", -1}});
    ExpectNumbers("tarn.evidencelog.maxkbytes", Config::s_evidenceMaxKBytes,
                  {{"0", 0}, {"-1", -1}});
    ExpectNumbers("tarn.evidencelog.packetcount", Config::s_evidencePacketCount,
                  {{"0", 0}, {"-1", -1}, {"2147483647", 2147483647}});
    ExpectNumbers("tarn.evidencelog.bufferctrlsize", Config::s_evidenceBufferCtrlSize,
                  {{"0", 0}, {"-1", -1}, {"2147483647", 2147483647}});
}

TEST_F(ConfigApplySetting, ReadsNumbersUpToWhatIsNone) {
    ExpectNumbers("tarn.evidencelog.maxkbytes", Config::s_evidenceMaxKBytes,
                  {{"12kB", 12}, {"many", 0}, {"", 0}, {"0x10", 0}, {"010", 10}, {"+4", 4}});
}

TEST_F(ConfigApplySetting, TruncatesNumbersToThirtyTwoBits) {
    ExpectNumbers(
        "tarn.evidencelog.maxkbytes", Config::s_evidenceMaxKBytes,
        {{"4294967297", 1}, {"2147483648", -2147483647 - 1}, {"99999999999999999999", -1}});
}

TEST_F(ConfigApplySetting, RaisesAShortTimeoutWithAMessage) {
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "4"));
    EXPECT_EQ(5, Config::s_evidenceFileTimeout);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "0"));
    EXPECT_EQ(5, Config::s_evidenceFileTimeout);
    EXPECT_THAT(log.Messages(),
                ElementsAre("Tuning parameter: 'tarn.evidencelog.file.timeout = 4' is out of range "
                            "(5-30), setting it to 5 minutes.",
                            "Tuning parameter: 'tarn.evidencelog.file.timeout = 0' is out of range "
                            "(5-30), setting it to 5 minutes."));
}

TEST_F(ConfigApplySetting, LowersALongTimeoutWithAMessage) {
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "31"));
    EXPECT_EQ(30, Config::s_evidenceFileTimeout);
    EXPECT_THAT(
        log.Messages(),
        ElementsAre("Tuning parameter: 'tarn.evidencelog.file.timeout = 31' is out of range "
                    "(5-30), setting it to 30 minutes."));
}

TEST_F(ConfigApplySetting, KeepsANegativeTimeoutAtTheTopOfTheRange) {
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "-1"));
    EXPECT_EQ(30, Config::s_evidenceFileTimeout);
    EXPECT_THAT(
        log.Messages(),
        ElementsAre("Tuning parameter: 'tarn.evidencelog.file.timeout = -1' is out of range "
                    "(5-30), setting it to 30 minutes."));
}

TEST_F(ConfigApplySetting, TakesATimeoutInRangeSilently) {
    ExpectNumbers("tarn.evidencelog.file.timeout", Config::s_evidenceFileTimeout,
                  {{"5", 5}, {"30", 30}});
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigApplySetting, LogsATimeoutOutOfRangeAtLevelFour) {
    vald::Log::SetLevel(3);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "31"));
    EXPECT_THAT(log.Messages(), IsEmpty());
    vald::Log::SetLevel(4);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "31"));
    EXPECT_EQ(1U, log.Messages().size());
    vald::Log::SetLevel(3);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "4"));
    EXPECT_EQ(1U, log.Messages().size());
    vald::Log::SetLevel(4);
    EXPECT_TRUE(Config::ApplySetting("tarn.evidencelog.file.timeout", "4"));
    EXPECT_EQ(2U, log.Messages().size());
}

TEST_F(ConfigLoad, OverlaysTheValuesThatAreThere) {
    LoadMain("tarn.engine.crm = 4\ntarn.snort.cpu = 1\n");
    LoadMain("tarn.snort.cpu = 2\n");
    EXPECT_EQ(4, Config::s_engineCrm) << "a key that is gone keeps its value";
    EXPECT_EQ(2, Config::s_snortCpu);
}

TEST_F(ConfigLoad, LetsTheLastLineOfAKeyWin) {
    LoadMain("tarn.engine.crm = 4\ntarn.engine.crm = 5");
    EXPECT_EQ(5, Config::s_engineCrm) << "and the last line needs no line feed";
}

TEST_F(ConfigLoad, GoesOnAfterALineThatIsNoSetting) {
    LoadMain("nonsense\n=1\ntarn.unknown = 2\ntarn.engine.crm = 4\n");
    EXPECT_EQ(4, Config::s_engineCrm);
    EXPECT_EQ(2U, log.Messages().size());
}

TEST_F(ConfigLoad, StoresThePathOfTheFileItOpenedLast) {
    LoadMain("");
    EXPECT_EQ(dir.File("tarn.conf"), Config::s_configFile);
    LoadEvents("");
    EXPECT_EQ(dir.File("tarn_event.conf"), Config::s_configFile);
    Config::Load(dir.File("missing").c_str(), Config::kMainFile);
    EXPECT_EQ(dir.File("tarn_event.conf"), Config::s_configFile);
}

TEST_F(ConfigLoad, SkipsAFileThatCannotBeOpenedWithoutAMessage) {
    Config::Load(dir.File("missing").c_str(), Config::kMainFile);
    Config::Load(dir.Path().c_str(), Config::kMainFile);
    Config::Load("", Config::kMainFile);
    Config::Load(nullptr, Config::kMainFile);
    EXPECT_EQ("", Config::s_configFile);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(ConfigLoad, KeepsAReadOnlyFileOutOfUse) {
    const std::string path = dir.Write("tarn.conf", "tarn.engine.crm = 4\n");
    ASSERT_EQ(0, chmod(path.c_str(), 0444));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    const bool superuser = geteuid() == 0;  // to whom no file is read-only
    if (superuser && seteuid(65534) != 0) {
        GTEST_SKIP() << "runs as the superuser in a namespace without other users";
    }
    Config::Load(path.c_str(), Config::kMainFile);
    if (superuser) {
        ASSERT_EQ(0, seteuid(0));
    }
    EXPECT_EQ(2, Config::s_engineCrm);
    EXPECT_EQ("", Config::s_configFile);
}

TEST_F(ConfigDump, ListsEveryKeyBetweenTwoRules) {
    Config::Dump();
    EXPECT_THAT(log.Messages(),
                ElementsAre("==============================",            //
                            "tarn.log.level = 3",                        //
                            "tarn.log.file = /cache/qor/tarn.log",       //
                            "tarn.log.maxfiles = 5",                     //
                            "tarn.log.maxfilesize = 2097152",            //
                            "tarn.snort.cpu = 0",                        //
                            "tarn.engine.cpu = 0",                       //
                            "tarn.engine.crm = 2",                       //
                            "tarn.debug.single = 0",                     //
                            "tarn.evidencelog.fileformat = pcap",        //
                            "tarn.evidencelog.maxfiles = 10",            //
                            "tarn.evidencelog.maxkbytes = 10",           //
                            "tarn.evidencelog.packetcount = 1",          //
                            "tarn.evidencelog.file.timeout = 15",        //
                            "tarn.evidencelog.bufferctrlsize = 262142",  //
                            "tarn.evidencelog.suppress = 5",             //
                            "=============================="));
}

TEST_F(ConfigDump, IsSilentBelowLevelFive) {
    vald::Log::SetLevel(4);
    Config::Dump();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

}  // namespace
