#include "daemon/engine.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "logging/log.h"

namespace {

class EngineTest : public ::testing::Test {
  protected:
    ~EngineTest() override { TarnEngine::ReleaseInstance(); }

    static bool Parse(std::vector<std::string> words) {
        words.insert(words.begin(), "tarn");
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        TarnEngine::Instance()->SetAppName(argv[0]);
        return TarnEngine::Instance()->ParseOptions(static_cast<int>(words.size()), argv.data());
    }

    // What ParseOptions writes to standard error.
    static std::string ParseError(const std::vector<std::string>& words) {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(Parse(words));
        return testing::internal::GetCapturedStderr();
    }
};

const std::string kUsage =
    "Usage: tarn -c <tarn_config_file> -n <snort_event_config_file> [-d] [-m] [-s] [-v] [-h]\n"
    "The options are as follows:\n"
    "-c\t Specifies the tarn configuration file name.\n"
    "-n\t Specifies the snort configuration file name.\n"
    "-d\t Running the application as a daemon.\n"
    "-v\t Displays version information.\n"
    "-h\t Displays help information.\n";

TEST_F(EngineTest, IsOneInstanceUntilItIsReleased) {
    TarnEngine* const engine = TarnEngine::Instance();
    EXPECT_EQ(TarnEngine::Instance(), engine);
    EXPECT_EQ("unknown", engine->GetAppName());
    TarnEngine::ReleaseInstance();
    TarnEngine::ReleaseInstance();
    EXPECT_EQ("unknown", TarnEngine::Instance()->GetAppName());
}

TEST_F(EngineTest, TakesTheLastPathComponentAsItsName) {
    TarnEngine* const engine = TarnEngine::Instance();
    engine->SetAppName("/usr/sbin/tarn");
    EXPECT_EQ("tarn", engine->GetAppName());
    engine->SetAppName("tarnx");
    EXPECT_EQ("tarnx", engine->GetAppName());
    EXPECT_EQ("1.0.116.251", TarnEngine::GetVersion());
}

TEST_F(EngineTest, SplicesTheInstanceNumberIntoThePidFileName) {
    EXPECT_EQ("/var/run/tarn0.pid", TarnEngine::PidFilePath("/var/run/tarn.pid", 0));
    EXPECT_EQ("/var/run/tarn12.pid", TarnEngine::PidFilePath("/var/run/tarn.pid", 12));
    EXPECT_EQ("/var/run/tarn3", TarnEngine::PidFilePath("/var/run/tarn", 3));
    EXPECT_EQ("/var/run.d/tarn3", TarnEngine::PidFilePath("/var/run.d/tarn", 3));
    EXPECT_EQ("a.b1.pid", TarnEngine::PidFilePath("a.b.pid", 1));
}

TEST_F(EngineTest, AcceptsEveryKnownOption) {
    EXPECT_TRUE(Parse({}));
    EXPECT_TRUE(Parse({"-c", "/tmp/a.conf", "-n", "/tmp/b.conf", "-d"}));
}

TEST_F(EngineTest, KeepsTheDefaultForAFileNameThatLooksLikeAnOption) {
    EXPECT_TRUE(Parse({"-c", "-x"}));
    EXPECT_TRUE(Parse({"-n", ""}));
}

TEST_F(EngineTest, NamesTheOptionThatLacksItsArgument) {
    EXPECT_EQ("Error: Unrecognized option: -c\n" + kUsage, ParseError({"-c"}));
    EXPECT_EQ("Error: Unrecognized option: -n\n" + kUsage, ParseError({"-n"}));
}

TEST_F(EngineTest, KeepsRefusingTheOptionsThatOnlyTheUsageNames) {
    EXPECT_EQ("Error: Unrecognized option: -m\n" + kUsage, ParseError({"-m"}));
    EXPECT_EQ("Error: Unrecognized option: -s\n" + kUsage, ParseError({"-s"}));
}

TEST_F(EngineTest, HelpEndsTheProcessWithStatusZero) {
    EXPECT_EXIT((void)Parse({"-h"}), testing::ExitedWithCode(0), "Usage: tarn -c");
}

TEST_F(EngineTest, VersionFollowsTheNameWithoutABlank) {
    EXPECT_EXIT((void)Parse({"-v"}), testing::ExitedWithCode(0), "tarn1.0.116.251\n");
}

int MainWith(std::vector<std::string> words) {
    words.insert(words.begin(), "tarn");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return TarnEngine::Instance()->Main(static_cast<int>(words.size()), argv.data());
}

TEST_F(EngineTest, AnUnknownOptionFailsTheStartWithStatusFour) {
    EXPECT_EXIT(exit(MainWith({"-x"})), testing::ExitedWithCode(4), "Unrecognized option: -x");
}

TEST_F(EngineTest, ATerminationSignalDuringTheStartEndsItWithStatusZeroAndWithoutTerminate) {
    EXPECT_EXIT(
        {
            Application::s_term = 1;
            exit(MainWith({}) + 1);
        },
        testing::ExitedWithCode(0),
        "^Notice: tarn starting\nNotice: Termination signal received, exiting\\.\n$");
}

TEST_F(EngineTest, OnlyAHangupCountsAsOne) {
    testing::internal::CaptureStderr();
    vald::Log::SetLevel(vald::Log::kDebug);
    TarnEngine::Instance()->OnHangup(SIGHUP, nullptr, nullptr);
    TarnEngine::Instance()->OnHangup(SIGUSR1, nullptr, nullptr);
    vald::Log::SetLevel(vald::Log::kNotice);
    EXPECT_EQ("Debug: Received HUP signal\nDebug: Received signal 10\n",
              testing::internal::GetCapturedStderr());
}

}  // namespace
