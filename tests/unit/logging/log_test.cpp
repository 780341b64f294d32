#include "logging/log.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "logging/sys_log.h"
#include "support/allocation_count.h"
#include "support/file_text.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "unit/logging/log_peer.h"
#include "unit/logging/syslog_stand_in.h"

namespace {

using syslog_stand_in::Line;
using syslog_stand_in::Lines;
using vald::Log;

// What the console callback got, formatted.
std::vector<Line> s_called;

void __attribute__((format(printf, 2, 0))) Called(int level, const char* format, va_list args) {
    char text[256];
    vsnprintf(text, sizeof text, format, args);
    s_called.push_back({level, text});
    errno = ENOENT;
}

class LogTest : public testing::Test {
  protected:
    LogTest() { Reset(); }
    ~LogTest() override { Reset(); }

    static void Reset() {
        syslog_stand_in::Clear();
        LogPeer::Reset();
        syslog_stand_in::Clear();
        s_called.clear();
    }
    void OpenAt(int level) { Log::GetInstance()->Open("tarn", m_path.c_str(), level, 100000, 5); }
    std::string FileMessages() const {
        return std::regex_replace(ReadFile(m_path), std::regex("[^\n]* T:[0-9]+ ([^\n]*\n)"), "$1");
    }
    // One message through every static level function, named after it.
    static void LogThroughAll() {
        Log::Debug("%s", "debug");
        Log::Info("%s", "info");
        Log::Notice("%s", "notice");
        Log::Warning("%s", "warning");
        Log::Error("%s", "error");
        Log::Critical("%s", "critical");
        Log::Fatal("%s", "fatal");
    }

    TempDir m_dir;
    const std::string m_path = m_dir.File("tarn.log");
};

using LogLevel = LogTest;
using LogConsole = LogTest;
using LogOpen = LogTest;
using LogOpened = LogTest;
using LogCallback = LogTest;
using LogSingleton = LogTest;
using LogSafety = LogTest;

// Before any test has set another.
const int kLevelAtStart = Log::GetLevel();

TEST_F(LogLevel, StartsAtNotice) {
    EXPECT_EQ(4, kLevelAtStart);
    LogPeer::Reset();
    EXPECT_TRUE(Log::Passes(4));
    EXPECT_FALSE(Log::Passes(5));
}

TEST_F(LogLevel, LetsPassWhatIsAtMostTheConfiguredOne) {
    const StderrCapture captured;
    Log::SetLevel(3);
    LogThroughAll();
    EXPECT_EQ("Info: info\nWarning: warning\nError: error\nError: critical\nError: fatal\n",
              captured.Text());
}

TEST_F(LogLevel, KeepsNoticeBelowInfo) {
    EXPECT_LT(Log::kInfo, Log::kNotice);
    const StderrCapture captured;
    Log::SetLevel(3);
    Log::Notice("hidden");
    Log::Info("shown");
    EXPECT_EQ("Info: shown\n", captured.Text());
}

TEST_F(LogLevel, StopsEverythingAtZeroEvenErrorsAfterOpening) {
    const StderrCapture captured;
    OpenAt(0);
    LogThroughAll();
    for (int level = 1; level <= 6; ++level) {
        Log::GetInstance()->Write(level, "text");
        Log::WriteConsole(level, "text");
    }
    EXPECT_EQ("", captured.Text());
    EXPECT_TRUE(Lines().empty());
    EXPECT_EQ("", ReadFile(m_path));
}

TEST_F(LogLevel, LetsEverythingPassAtSixAsAtFive) {
    for (const int level : {5, 6}) {
        OpenAt(level);
        LogThroughAll();
        EXPECT_EQ("debug\ninfo\nnotice\nwarning\nerror\ncritical\nfatal\n", FileMessages());
        Reset();
    }
}

TEST_F(LogLevel, ReachesBothSinks) {
    OpenAt(1);
    Log::SetLevel(5);
    Log::Debug("to the file");
    Log::Info("to both");
    EXPECT_EQ("to the file\nto both\n", FileMessages());
    EXPECT_EQ(std::vector<Line>({{LOG_ERR, "to both"}}), Lines());
    EXPECT_EQ(4, SysLog::GetInstance()->GetLevel());
    Log::SetLevel(0);
    EXPECT_EQ(0, SysLog::GetInstance()->GetLevel());
}

TEST_F(LogConsole, PutsAWordBeforeEachLevel) {
    const StderrCapture captured;
    Log::SetLevel(5);
    LogThroughAll();
    EXPECT_EQ(
        "Debug: debug\nInfo: info\nNotice: notice\nWarning: warning\nError: error\n"
        "Error: critical\nError: fatal\n",
        captured.Text());
}

TEST_F(LogConsole, KeepsTheOrdinaryPrioritiesInTheSystemLog) {
    const StderrCapture captured;
    Log::SetLevel(5);
    LogThroughAll();
    EXPECT_EQ(std::vector<Line>({{LOG_INFO, "info"},
                                 {LOG_INFO, "notice"},
                                 {LOG_WARNING, "warning"},
                                 {LOG_ERR, "error"},
                                 {LOG_ERR, "critical"},
                                 {LOG_ERR, "fatal"}}),
              Lines());
}

TEST_F(LogConsole, ShowsNoticesBeforeOpeningAndHidesThemAfterwardsAtLevelThree) {
    const StderrCapture captured;
    Log::Notice("before");
    EXPECT_EQ("Notice: before\n", captured.Text());
    EXPECT_EQ(std::vector<Line>({{LOG_INFO, "before"}}), Lines());
    OpenAt(3);
    Log::Notice("after");
    EXPECT_EQ("Notice: before\n", captured.Text());
    EXPECT_EQ(1u, Lines().size());
    EXPECT_EQ("", ReadFile(m_path));
}

TEST_F(LogConsole, IsTakenWhileTheSingletonIsNotOpenYet) {
    const StderrCapture captured;
    (void)Log::GetInstance();
    Log::Error("early");
    EXPECT_EQ("Error: early\n", captured.Text());
}

TEST_F(LogConsole, CutsAMessageAt8191Characters) {
    const StderrCapture captured;
    Log::Error("%s", std::string(9000, 'x').c_str());
    EXPECT_EQ("Error: " + std::string(8191, 'x') + "\n", captured.Text());
    EXPECT_EQ(std::string(8191, 'x'), Lines()[0].text);
}

TEST_F(LogConsole, ReadsNoConversionInTheFinishedText) {
    const StderrCapture captured;
    Log::Error("%s", "100%n");
    EXPECT_EQ("Error: 100%n\n", captured.Text());
    EXPECT_EQ("100%n", Lines()[0].text);
}

TEST_F(LogConsole, AppendsTheTextOfErrnoWhereAsked) {
    const StderrCapture captured;
    errno = ENOENT;
    LogPeer::WriteConsoleWithErrno(1, "cannot open %s", "x");
    EXPECT_EQ("Error: cannot open x: No such file or directory\n", captured.Text());
}

TEST_F(LogConsole, HasNoRoomForErrnoAfterAFullMessage) {
    const StderrCapture captured;
    LogPeer::WriteConsoleWithErrno(1, "%s", std::string(9000, 'x').c_str());
    EXPECT_EQ("Error: " + std::string(8191, 'x') + "\n", captured.Text());
}

TEST_F(LogConsole, CanBeWrittenToAtLevelsUpToFour) {
    const StderrCapture captured;
    Log::SetLevel(6);
    for (int level = 1; level <= 6; ++level) {
        Log::WriteConsole(level, "level %d", level);
    }
    EXPECT_EQ("Error: level 1\nWarning: level 2\nInfo: level 3\nNotice: level 4\n",
              captured.Text());
}

TEST_F(LogConsole, GoesThroughTheSysLogOnceThereIsOne) {
    const StderrCapture captured;
    OpenAt(4);
    Log::WriteConsole(1, "text");
    EXPECT_EQ("Error: text\n", captured.Text());
    EXPECT_EQ(std::vector<Line>({{LOG_ALERT, "text"}}), Lines());
    EXPECT_EQ("", ReadFile(m_path));
}

TEST_F(LogOpen, SetsLevelNameAndBothSinks) {
    OpenAt(2);
    EXPECT_EQ(2, Log::GetLevel());
    EXPECT_EQ("tarn", LogPeer::AppName());
    EXPECT_TRUE(LogPeer::Initialized());
    EXPECT_TRUE(std::filesystem::exists(m_path));
    EXPECT_EQ("tarn", syslog_stand_in::Openings().back().name);
    EXPECT_EQ(2, SysLog::GetInstance()->GetLevel());
}

TEST_F(LogOpen, LeavesTheNameAloneWhenTheNewOneIsEmpty) {
    Log::GetInstance()->Open("", m_path.c_str(), 3, 1000, 5);
    EXPECT_EQ("QOR", LogPeer::AppName());
    EXPECT_TRUE(std::filesystem::exists(m_path));
}

TEST_F(LogOpen, OpensOnlyTheSystemLogWithoutAName) {
    Log::GetInstance()->Open(nullptr, m_path.c_str(), 3, 1000, 5);
    EXPECT_FALSE(std::filesystem::exists(m_path));
    EXPECT_TRUE(LogPeer::Initialized());
    Log::Error("text");
    EXPECT_EQ(std::vector<Line>({{LOG_ALERT, "text"}}), Lines());
}

TEST_F(LogOpen, KeepsTheApplicationNameInTheWarningAboutTheFile) {
    const StderrCapture captured;
    const std::string path = m_dir.File("missing/tarn.log");
    Log::GetInstance()->Open("tarn", path.c_str(), 3, 1000, 5);
    EXPECT_EQ("Warning: Unable to initialize log file: tarn\n", captured.Text());
    EXPECT_EQ(std::vector<Line>({{LOG_WARNING, "Unable to initialize log file: tarn"}}), Lines());
    EXPECT_TRUE(LogPeer::Initialized());
}

TEST_F(LogOpen, WarnsWithoutAFileName) {
    const StderrCapture captured;
    Log::GetInstance()->Open("tarn", nullptr, 3, 1000, 5);
    EXPECT_EQ("Warning: Unable to initialize log file: tarn\n", captured.Text());
}

TEST_F(LogOpen, WarnsOnALimitOfZero) {
    const StderrCapture captured;
    Log::GetInstance()->Open("tarn", m_path.c_str(), 3, 0, 5);
    EXPECT_EQ("Warning: Unable to initialize log file: tarn\n", captured.Text());
}

TEST_F(LogOpen, SendsErrorsToTheSystemLogThoughTheFileFailed) {
    const StderrCapture captured;
    Log::GetInstance()->Open("tarn", m_dir.File("missing/tarn.log").c_str(), 5, 1000, 5);
    syslog_stand_in::Clear();
    Log::GetInstance()->Write(1, "one");
    Log::GetInstance()->Write(3, "three");
    Log::GetInstance()->Write(4, "four");
    EXPECT_EQ(std::vector<Line>({{LOG_ALERT, "one"}, {LOG_ERR, "three"}}), Lines());
}

TEST_F(LogOpen, StartsANewFileWhenRepeated) {
    OpenAt(3);
    Log::Error("first");
    Log::GetInstance()->Reopen("tarn", m_path.c_str(), 3, 1000, 5);
    Log::Error("second");
    EXPECT_EQ("second\n", FileMessages());
    EXPECT_NE(std::string::npos, ReadFile(m_path + ".001").find("first\n"));
}

TEST_F(LogOpen, TakesTheConsolePathForItsWarningWhenRepeated) {
    const StderrCapture captured;
    OpenAt(3);
    Log::GetInstance()->Reopen("tarn", m_dir.File("missing/tarn.log").c_str(), 3, 1000, 5);
    EXPECT_EQ("Warning: Unable to initialize log file: tarn\n", captured.Text());
    EXPECT_TRUE(LogPeer::Initialized());
}

TEST_F(LogOpened, SendsInfosToTheFileAndToTheSystemLogAsErrors) {
    const StderrCapture captured;
    OpenAt(3);
    Log::Info("static");
    Log::GetInstance()->Write(3, "member %d", 2);
    EXPECT_EQ("static\nmember 2\n", FileMessages());
    EXPECT_EQ(std::vector<Line>({{LOG_ERR, "static"}, {LOG_ERR, "member 2"}}), Lines());
    EXPECT_EQ("", captured.Text());
}

TEST_F(LogOpened, KeepsNoticesAndDebugLinesFromTheSystemLog) {
    OpenAt(5);
    Log::Notice("notice");
    Log::GetInstance()->Write(5, "debug");
    EXPECT_EQ("notice\ndebug\n", FileMessages());
    EXPECT_TRUE(Lines().empty());
}

TEST_F(LogOpened, KeepsAWriteBeforeThatLostWithoutATrace) {
    const StderrCapture captured;
    Log::GetInstance()->Write(1, "lost");
    EXPECT_EQ("", captured.Text());
    EXPECT_TRUE(Lines().empty());
}

TEST_F(LogOpened, DropsEverythingAfterClose) {
    const StderrCapture captured;
    OpenAt(3);
    Log::GetInstance()->Close();
    EXPECT_EQ(2, syslog_stand_in::Closings());
    Log::Error("static");
    Log::GetInstance()->Write(1, "member");
    EXPECT_EQ("", ReadFile(m_path));
    EXPECT_TRUE(Lines().empty());
    EXPECT_EQ("", captured.Text());
}

void __attribute__((format(printf, 2, 3))) WriteAsList(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Log::GetInstance()->VWrite(level, format, args);
    va_end(args);
}

TEST_F(LogCallback, GetsOnlyWhatPasses) {
    OpenAt(1);
    Log::SetConsole(Called, true, true, true);
    LogThroughAll();
    for (const int level : {1, 2, 3}) {
        Log::GetInstance()->Write(level, "written");
        WriteAsList(level, "listed");
    }
    EXPECT_EQ((std::vector<Line>{
                  {1, "error"}, {1, "critical"}, {1, "fatal"}, {1, "written"}, {1, "listed"}}),
              s_called);
}

TEST_F(LogCallback, KeepsInfosAndCriticalsToItselfBeforeOpening) {
    const StderrCapture captured;
    Log::SetConsole(Called, true, true, true);
    Log::SetLevel(5);
    LogThroughAll();
    EXPECT_EQ(std::vector<Line>({{4, "notice"}, {2, "warning"}, {1, "error"}}), s_called);
}

TEST_F(LogCallback, KeepsToLevelsOneToThreeAfterOpening) {
    Log::SetConsole(Called, true, true, true);
    OpenAt(5);
    LogThroughAll();
    EXPECT_EQ(std::vector<Line>(
                  {{3, "info"}, {2, "warning"}, {1, "error"}, {1, "critical"}, {1, "fatal"}}),
              s_called);
    EXPECT_EQ("debug\ninfo\nnotice\nwarning\nerror\ncritical\nfatal\n", FileMessages());
}

TEST_F(LogCallback, GetsAWriteThatIsOtherwiseLost) {
    Log::SetConsole(Called, true, false, false);
    Log::GetInstance()->Write(1, "%s", "text");
    Log::GetInstance()->Write(2, "%s", "text");
    EXPECT_EQ(std::vector<Line>({{1, "text"}}), s_called);
}

TEST_F(LogCallback, GetsOnlyTheChosenLevels) {
    const StderrCapture captured;
    for (int chosen = 1; chosen <= 3; ++chosen) {
        Reset();
        Log::SetConsole(Called, chosen == 1, chosen == 2, chosen == 3);
        OpenAt(5);
        LogThroughAll();
        for (const Line& line : s_called) {
            EXPECT_EQ(line.priority, chosen);
        }
        EXPECT_EQ(s_called.size(), chosen == 1 ? 3u : 1u);
    }
}

TEST_F(LogCallback, IsNotCalledForAMessageThatDoesNotPass) {
    Log::SetConsole(Called, true, true, true);
    Log::SetLevel(0);
    LogThroughAll();
    Log::GetInstance()->Write(1, "text");
    EXPECT_TRUE(s_called.empty());
}

TEST_F(LogCallback, IsClearedTogetherWithItsFlags) {
    const StderrCapture captured;
    Log::SetConsole(Called, true, true, true);
    Log::SetConsole(nullptr, true, true, true);
    Log::Error("text");
    EXPECT_TRUE(s_called.empty());
}

TEST_F(LogSingleton, IsMadeOnce) {
    EXPECT_FALSE(LogPeer::Exists());
    EXPECT_EQ(Log::GetInstance(), Log::GetInstance());
    EXPECT_TRUE(LogPeer::Exists());
}

TEST_F(LogSingleton, IsNullOnlyWhenThereIsNoMemoryForIt) {
    if (!FailNextAllocation()) {
        GTEST_SKIP() << "a sanitizer has an allocator of its own";
    }
    EXPECT_EQ(nullptr, Log::GetInstance());
    EXPECT_NE(nullptr, Log::GetInstance());
}

TEST_F(LogSingleton, ClosesBothSinksWhenItIsDestroyed) {
    const StderrCapture captured;
    OpenAt(3);
    syslog_stand_in::Clear();
    Log::Destroy();
    EXPECT_FALSE(LogPeer::Exists());
    EXPECT_EQ(1, syslog_stand_in::Closings());
    Log::Error("text");
    EXPECT_EQ("Error: text\n", captured.Text());
    EXPECT_EQ("", ReadFile(m_path));
}

TEST_F(LogSafety, LeavesErrnoAsItWas) {
    const StderrCapture captured;
    Log::SetLevel(5);
    Log::SetConsole(Called, true, true, true);
    errno = EDOM;
    LogThroughAll();
    EXPECT_EQ(EDOM, errno);
    Log::WriteConsole(1, "text");
    EXPECT_EQ(EDOM, errno);
    OpenAt(5);
    errno = EDOM;
    LogThroughAll();
    Log::GetInstance()->Write(1, "text");
    EXPECT_EQ(EDOM, errno);
}

void LogTermination(int) {
    Log::Error("from the handler");
}

// The handler runs after the call that it interrupts and finds no lock held.
TEST_F(LogSafety, HoldsASignalHandlerBackUntilTheSystemLogIsDone) {
    static size_t linesAfterTheSignal = 0;
    const StderrCapture captured;
    const auto former = signal(SIGTERM, LogTermination);
    for (const bool open : {false, true}) {
        if (open) {
            OpenAt(3);
        }
        syslog_stand_in::Clear();
        syslog_stand_in::Inside([] {
            syslog_stand_in::Inside(nullptr);
            raise(SIGTERM);
            linesAfterTheSignal = Lines().size();
        });
        Log::Error("interrupted");
        EXPECT_EQ(1U, linesAfterTheSignal);
        const auto lines = Lines();
        ASSERT_EQ(2u, lines.size());
        EXPECT_EQ("interrupted", lines[0].text);
        EXPECT_EQ("from the handler", lines[1].text);
    }
    signal(SIGTERM, former);
}

}  // namespace
