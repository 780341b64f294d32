#include "logging/sys_log.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <string>

#include "unit/logging/syslog_stand_in.h"

namespace {

using syslog_stand_in::Line;
using syslog_stand_in::Lines;
using syslog_stand_in::Opening;
using syslog_stand_in::Openings;

class SysLogTest : public testing::Test {
  protected:
    SysLogTest() {
        SysLog::Release();
        syslog_stand_in::Clear();
    }
    ~SysLogTest() override {
        syslog_stand_in::Clear();
        SysLog::Release();
    }
};

using SysLogLifecycle = SysLogTest;
using SysLogName = SysLogTest;
using SysLogLevel = SysLogTest;
using SysLogWrite = SysLogTest;

TEST_F(SysLogLifecycle, OpensTheSystemLogWithoutANameWhenItIsMade) {
    SysLog* log = SysLog::GetInstance();
    EXPECT_EQ(3, log->GetLevel());
    EXPECT_EQ("", log->GetAppName());
    EXPECT_EQ(std::vector<Opening>({{"", LOG_PID | LOG_NDELAY, LOG_LOCAL0}}), Openings());
}

TEST_F(SysLogLifecycle, IsMadeOnce) {
    EXPECT_EQ(SysLog::GetInstance(), SysLog::GetInstance());
    EXPECT_EQ(1u, Openings().size());
}

TEST_F(SysLogLifecycle, ClosesTheSystemLogWhenItIsReleased) {
    (void)SysLog::GetInstance();
    SysLog::Release();
    EXPECT_EQ(1, syslog_stand_in::Closings());
}

TEST_F(SysLogLifecycle, IsMadeAnewAfterARelease) {
    (void)SysLog::GetInstance();
    SysLog::Release();
    (void)SysLog::GetInstance();
    EXPECT_EQ(2u, Openings().size());
}

TEST_F(SysLogName, TakesEffectAtOnceWhileTheSystemLogIsOpen) {
    SysLog* log = SysLog::GetInstance();
    log->SetAppName("tarn");
    EXPECT_EQ(1, syslog_stand_in::Closings());
    EXPECT_EQ((Opening{"tarn", LOG_PID | LOG_NDELAY, LOG_LOCAL0}), Openings().back());
    EXPECT_EQ("tarn", log->GetAppName());
}

TEST_F(SysLogName, IsOnlyStoredWhileTheSystemLogIsClosed) {
    SysLog* log = SysLog::GetInstance();
    log->Close();
    log->SetAppName("tarn");
    EXPECT_EQ(1u, Openings().size());
    log->Open();
    EXPECT_EQ("tarn", Openings().back().name);
}

TEST_F(SysLogName, IsSetTogetherWithTheLevelByInitialize) {
    SysLog* log = SysLog::GetInstance();
    log->Initialize("tarn", 2);
    EXPECT_EQ("tarn", log->GetAppName());
    EXPECT_EQ(2, log->GetLevel());
}

TEST_F(SysLogLevel, KeepsLevelsOfFiveAndMoreAtFour) {
    SysLog* log = SysLog::GetInstance();
    for (const int level : {5, 6, 100}) {
        log->SetLevel(level);
        EXPECT_EQ(4, log->GetLevel());
    }
}

TEST_F(SysLogLevel, StoresLevelsUpToFourAsTheyStand) {
    SysLog* log = SysLog::GetInstance();
    for (const int level : {0, 1, 2, 3, 4, -1}) {
        log->SetLevel(level);
        EXPECT_EQ(log->GetLevel(), level);
    }
}

TEST_F(SysLogLevel, KeepsItsOwnDebugMessagesFromEveryReader) {
    SysLog* log = SysLog::GetInstance();
    log->SetLevel(6);
    log->Initialize("tarn", 6);
    (void)log->GetAppName();
    log->Debug("never seen");
    EXPECT_TRUE(Lines().empty());
}

TEST_F(SysLogLevel, DecidesWhichLevelFunctionsPass) {
    SysLog* log = SysLog::GetInstance();
    log->SetLevel(2);
    log->Error("error %d", 1);
    log->Warning("warning %d", 2);
    log->Info("info %d", 3);
    log->Notice("notice %d", 4);
    EXPECT_EQ(std::vector<Line>({{1, "error 1"}, {2, "warning 2"}}), Lines());
}

TEST_F(SysLogWrite, KeepsTheLevelAsThePriority) {
    SysLog* log = SysLog::GetInstance();
    log->SetLevel(4);
    log->Error("one");
    log->Warning("two");
    log->Info("three");
    log->Notice("four");
    log->Write(2, "%s", "five");
    EXPECT_EQ(std::vector<Line>({{LOG_ALERT, "one"},
                                 {LOG_CRIT, "two"},
                                 {LOG_ERR, "three"},
                                 {LOG_WARNING, "four"},
                                 {LOG_CRIT, "five"}}),
              Lines());
}

TEST_F(SysLogWrite, SendsNothingAboveItsLevel) {
    SysLog::GetInstance()->Write(4, "above the level it starts with");
    EXPECT_TRUE(Lines().empty());
}

TEST_F(SysLogWrite, SendsNothingWhileTheSystemLogIsClosed) {
    SysLog* log = SysLog::GetInstance();
    log->Close();
    log->Error("lost");
    log->Open();
    log->Error("sent");
    EXPECT_EQ(std::vector<Line>({{1, "sent"}}), Lines());
}

TEST_F(SysLogWrite, CutsALineAt511Characters) {
    SysLog* log = SysLog::GetInstance();
    log->Error("%s", std::string(511, 'a').c_str());
    log->Error("%s", std::string(512, 'b').c_str());
    EXPECT_EQ(std::string(511, 'a'), Lines()[0].text);
    EXPECT_EQ(std::string(511, 'b'), Lines()[1].text);
}

TEST_F(SysLogWrite, ReadsNoConversionInTheFinishedText) {
    SysLog::GetInstance()->Error("%s", "100%s");
    EXPECT_EQ(std::vector<Line>({{1, "100%s"}}), Lines());
}

TEST_F(SysLogWrite, LeavesErrnoAsItWas) {
    SysLog* log = SysLog::GetInstance();
    errno = EDOM;
    log->Error("text");
    EXPECT_EQ(EDOM, errno);
    log->SetAppName("tarn");
    EXPECT_EQ(EDOM, errno);
}

TEST_F(SysLogWrite, HoldsSignalsAndCancelsBackWhileItIsInTheSystemLog) {
    static sigset_t blocked;
    static int cancelState = -1;
    syslog_stand_in::Inside([] {
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    });
    SysLog::GetInstance()->Error("text");
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR2}) {
        EXPECT_EQ(1, sigismember(&blocked, signal)) << signal;
    }
    EXPECT_EQ(0, sigismember(&blocked, SIGSEGV));
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, cancelState);

    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(0, sigismember(&after, SIGTERM));
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancelState);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, cancelState);
}

TEST_F(SysLogWrite, DropsALineOfAFaultHandlerThatStruckInsideTheSystemLog) {
    syslog_stand_in::Inside([] { SysLog::GetInstance()->Error("from the handler"); });
    SysLog::GetInstance()->Error("text");
    syslog_stand_in::Inside(nullptr);
    SysLog::GetInstance()->Error("next");
    EXPECT_EQ(std::vector<Line>({{1, "text"}, {1, "next"}}), Lines());
}

}  // namespace
