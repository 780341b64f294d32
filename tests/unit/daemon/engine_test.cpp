#include "daemon/engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <string>
#include <vector>

#include "events/event_bridge.h"
#include "events/event_thread.h"
#include "logging/log.h"
#include "logging/log_guards.h"
#include "support/file_text.h"
#include "support/levelled_log.h"
#include "support/log_capture.h"
#include "support/private_channel.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "threads/cancellation.h"
#include "unit/events/bridge_fixture.h"

// Reaches what no operation shows.
class TarnEnginePeer {
  public:
    static bool HungUp(const TarnEngine& engine) { return engine.m_hangup.load(); }
    static void SetEventThread(TarnEngine& engine, EventThread* thread) {
        engine.m_eventThread = thread;
    }
    static EventThread* TheEventThread(const TarnEngine& engine) { return engine.m_eventThread; }
    static bool StartsEventThread(TarnEngine& engine) { return engine.StartEventThread(); }
    static void SetBridge(TarnEngine& engine, EventBridge* bridge) { engine.m_bridge = bridge; }
    static bool ExaminesFiles(TarnEngine& engine, const std::string& main,
                              const std::string& events) {
        engine.m_configFile = main;
        engine.m_eventConfigFile = events;
        return engine.ExamineFiles();
    }
    // The way out, which quits the threads by force.
    static void Quit(TarnEngine& engine) { engine.Terminate(); }
};

namespace {

class EngineTest : public testing::Test {
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

// Neither hears a stop nor lets itself be cancelled, as if it hung in the kernel.
class StubbornThread : public EventThread {
  public:
    StubbornThread() : EventThread("eventthread", 0, 0) { m_release.lock(); }

    int Run() override {
        const CancellationOff off;
        const std::lock_guard<std::mutex> lock(m_release);
        return 0;
    }
    void LetItEnd() {
        m_release.unlock();
        EXPECT_TRUE(Join(nullptr));
    }

  private:
    std::mutex m_release;
};

// Keeps the calling thread, and those that it starts, on one CPU.
class OneCpu {
  public:
    OneCpu() {
        sched_getaffinity(0, sizeof(m_before), &m_before);
        EXPECT_TRUE(BindCallingThreadToCpu(sched_getcpu()));
    }
    ~OneCpu() { sched_setaffinity(0, sizeof(m_before), &m_before); }
    OneCpu(const OneCpu&) = delete;
    OneCpu& operator=(const OneCpu&) = delete;

  private:
    cpu_set_t m_before{};
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

TEST_F(EngineTest, ExaminesBothOfItsFiles) {
    const TempDir folder;
    const std::string file = folder.File("a.conf");
    WriteFile(file, "");
    struct stat status {};
    ASSERT_EQ(0, stat(folder.Path().c_str(), &status));
    const std::string missing = folder.File("missing");
    const struct {
        std::string main;
        std::string events;
        std::string error;
    } cases[] = {
        {file, file, ""},
        {"", file, "Error: No TaRN configuration file specified\n"},
        {file, "", "Error: No snort configuration file specified\n"},
        {missing, file, "Error: Cannot obtain file status for \"" + missing + "\".\n"},
        {file, missing, "Error: Cannot obtain file status for \"" + missing + "\".\n"},
        {folder.Path().string(), file,
         "Error: Invalid file status mode " + std::to_string(status.st_mode) + " for \"" +
             folder.Path().string() + "\".\n"},
    };
    for (const auto& [main, events, error] : cases) {
        const StderrCapture captured;
        EXPECT_EQ(error.empty(),
                  TarnEnginePeer::ExaminesFiles(*TarnEngine::Instance(), main, events));
        EXPECT_EQ(error, captured.Text());
    }
}

TEST_F(EngineTest, OnlyAHangupCountsAsOne) {
    TarnEngine& engine = *TarnEngine::Instance();
    vald::Log::SetLevel(vald::Log::kDebug);
    testing::internal::CaptureStderr();
    engine.OnHangup(SIGUSR1, nullptr, nullptr);
    EXPECT_FALSE(TarnEnginePeer::HungUp(engine));
    engine.OnHangup(SIGHUP, nullptr, nullptr);
    EXPECT_TRUE(TarnEnginePeer::HungUp(engine));
    EXPECT_EQ("Debug: Received signal 10\nDebug: Received HUP signal\n",
              testing::internal::GetCapturedStderr());
    vald::Log::SetLevel(vald::Log::kNotice);
}

TEST_F(EngineTest, CatchesAHangupAndUnblocksIt) {
    EXPECT_EXIT(
        {
            sigset_t all;
            sigfillset(&all);
            sigprocmask(SIG_BLOCK, &all, nullptr);
            TarnEngine& engine = *TarnEngine::Instance();
            const bool installed = engine.InstallHangupHandler();
            raise(SIGHUP);
            const bool caught = TarnEnginePeer::HungUp(engine);
            sigprocmask(SIG_BLOCK, nullptr, &all);
            _exit(installed && caught && sigismember(&all, SIGHUP) == 0 &&
                          sigismember(&all, SIGUSR1) == 1
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EngineTest, LeavesAHangupUntilItsThreadHasLeftTheLog) {
    EXPECT_EXIT(
        {
            TarnEngine& engine = *TarnEngine::Instance();
            bool hasWaited = engine.InstallHangupHandler();
            {
                const UndisturbedByHandlers inside;
                raise(SIGHUP);
                hasWaited = hasWaited && !TarnEnginePeer::HungUp(engine);
            }
            _exit(hasWaited && TarnEnginePeer::HungUp(engine) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EngineTest, StopsAnEventThreadThatShouldNotRunAndStartsItAgain) {
    const PrivateChannel channel;
    EventBridge* const bridge = EventBridge::GetInstance();
    ASSERT_EQ(0, bridge->Initialize());
    const auto lines = LevelledMessages([bridge] {
        TarnEngine& engine = *TarnEngine::Instance();
        auto* const thread = new EventThread("eventthread", 0, 0);
        TarnEnginePeer::SetEventThread(engine, thread);
        ASSERT_TRUE(thread->Start(false));
        while (EventBridgePeer::References(*bridge) < 2) {  // from there on it hears a stop
            sched_yield();
        }
        EXPECT_TRUE(TarnEnginePeer::StartsEventThread(engine));
        EXPECT_EQ(thread, TarnEnginePeer::TheEventThread(engine)) << "the same object again";
        EXPECT_TRUE(thread->AwaitBegun(60000));
        TarnEnginePeer::Quit(engine);
        EXPECT_EQ(nullptr, TarnEnginePeer::TheEventThread(engine));
    });
    bridge->Release();
    const auto has = [&lines](const char* line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    EXPECT_TRUE(has("1 Event thread is running which should not be. Try stop it to fix this."));
    EXPECT_TRUE(has("5 Want to start EVENT thread"));
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("5 Event thread ") && line.ends_with(" exiting: 0");
    })) << "the first run has ended by the stop";
}

// Two seconds before the cancel, two after it, and two until the engine gives the thread up.
TEST_F(EngineTest, KeepsStatusFourForAThreadThatItHadToAbandon) {
    const PrivateChannel channel;
    EventBridge* const bridge = EventBridge::GetInstance();
    ASSERT_EQ(0, bridge->Initialize());
    TarnEngine& engine = *TarnEngine::Instance();
    TarnEnginePeer::SetBridge(engine, bridge);
    StubbornThread thread;
    TarnEnginePeer::SetEventThread(engine, &thread);
    ASSERT_TRUE(thread.Start(false));
    const LogCapture log;
    EXPECT_EQ(4, engine.StopEngine());
    EXPECT_EQ(nullptr, TarnEnginePeer::TheEventThread(engine)) << "it may never end";
    EXPECT_THAT(log.Messages(), testing::Contains("Event thread join timeout exceeded"));
    TarnEnginePeer::Quit(engine);
    EXPECT_EQ(1U, EventBridgePeer::References(*bridge)) << "the thread may still use the bridge";
    EXPECT_FALSE(thread.IsFinished());
    thread.LetItEnd();
    bridge->Release();
}

// With all threads on one CPU a new thread rarely comes to its first line before the stop. The stop
// then often comes before the body has begun, too, and costs the time of the join.
TEST_F(EngineTest, KeepsAStopWaitingForAThreadThatHasNotBegun) {
    const OneCpu oneCpu;
    const PrivateChannel channel;
    EventBridge* const bridge = EventBridge::GetInstance();
    ASSERT_EQ(0, bridge->Initialize());
    TarnEngine& engine = *TarnEngine::Instance();
    TarnEnginePeer::SetBridge(engine, bridge);
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(TarnEnginePeer::StartsEventThread(engine));
        ASSERT_EQ(0, engine.StopEngine());
        const EventThread* const thread = TarnEnginePeer::TheEventThread(engine);
        ASSERT_TRUE(thread == nullptr || thread->IsFinished()) << "in round " << round;
        ASSERT_EQ(0, bridge->Initialize());
    }
    TarnEnginePeer::Quit(engine);
}

TEST_F(EngineTest, MakesAnEventThreadWhereThereIsNone) {
    TarnEngine& engine = *TarnEngine::Instance();
    EXPECT_TRUE(TarnEnginePeer::StartsEventThread(engine));
    ASSERT_NE(nullptr, TarnEnginePeer::TheEventThread(engine));
    EXPECT_TRUE(TarnEnginePeer::TheEventThread(engine)->AwaitBegun(60000));
    TarnEnginePeer::Quit(engine);
}

}  // namespace
