#include "daemon/application.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "logging/log.h"
#include "logging/log_guards.h"
#include "support/stderr_capture.h"

namespace {

// Records the order of the calls and gives the results that the test names.
class RecordingApplication : public Application {
  public:
    int Initialize(int /*argc*/, char** /*argv*/) override {
        m_calls.emplace_back("initialize");
        return m_initializeResult;
    }
    int Terminate() override {
        m_calls.emplace_back("terminate");
        return 99;  // nobody looks at it
    }
    int Run() override {
        m_calls.emplace_back("run");
        return m_run();
    }
    int RunAlternate() override {
        m_calls.emplace_back("alternate");
        s_term = 1;
        return Application::RunAlternate();
    }
    void UseAlternate() { m_useAlternateRun = true; }
    [[nodiscard]] std::string ProgramName() const { return m_programName; }
    [[nodiscard]] std::string ErrorText() const { return m_errorText; }

    std::vector<std::string> m_calls;
    int m_initializeResult = 0;
    std::function<int()> m_run = [] {
        s_term = 1;
        return 0;
    };
};

// Where the table of virtual operations holds one, counted from 0. A pointer to a virtual member is
// its offset in that table, on some machines with the lowest bit set.
template <typename Operation>
ptrdiff_t Slot(Operation operation) {
    ptrdiff_t offset = 0;
    static_assert(sizeof operation >= sizeof offset);
    memcpy(&offset, &operation, sizeof offset);
    return offset / static_cast<ptrdiff_t>(sizeof(void*));
}

TEST(ApplicationOperations, HaveTheDestructorLast) {
    EXPECT_EQ(0, Slot(&Application::Initialize));
    EXPECT_EQ(1, Slot(&Application::Terminate));
    EXPECT_EQ(2, Slot(&Application::Run));
    EXPECT_EQ(3, Slot(&Application::RunAlternate));
}

using Calls = std::vector<std::string>;

// Main changes the signal mask and the handlers of the process, so each case runs in a child whose
// exit status is 0 when the case held.
int InChild(const std::function<bool()>& holds) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        _exit(holds() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

int CallMain(Application& application, const char* argv0 = "/usr/sbin/tarn") {
    std::string name = argv0;
    std::vector<char*> argv{name.data(), nullptr};
    return application.Main(1, argv.data());
}

TEST(ApplicationMain, RunsUntilATerminationIsSeen) {
    EXPECT_EQ(0, InChild([] {
                  RecordingApplication app;
                  int runs = 0;
                  app.m_run = [&runs] {
                      if (++runs == 3) {
                          Application::s_term = 1;
                      }
                      return 0;
                  };
                  return CallMain(app) == 0 &&
                         app.m_calls == Calls{"initialize", "run", "run", "run", "terminate"} &&
                         app.ProgramName() == "tarn";
              }));
}

TEST(ApplicationMain, GivesStatusFourAfterAFailedInitializeAndStillTerminates) {
    EXPECT_EQ(0, InChild([] {
                  RecordingApplication app;
                  app.m_initializeResult = -1;
                  return CallMain(app) == 4 && app.m_calls == Calls{"initialize", "terminate"} &&
                         Application::s_term == 1;
              }));
}

TEST(ApplicationMain, ReturnsWhatAFailedRunReturned) {
    EXPECT_EQ(
        0, InChild([] {
            RecordingApplication app;
            app.m_run = [&app] {
                Application::s_term = app.m_calls.size() > 2 ? 1 : 0;  // a second run is the last
                return 4;
            };
            return CallMain(app) == 4 && app.m_calls == Calls{"initialize", "run", "terminate"};
        }));
}

TEST(ApplicationMain, TakesTheAlternateRunWhenItIsSelected) {
    EXPECT_EQ(0, InChild([] {
                  RecordingApplication app;
                  app.UseAlternate();
                  return CallMain(app, "tarn") == 0 &&
                         app.m_calls == Calls{"initialize", "alternate", "terminate"} &&
                         app.ProgramName() == "tarn";
              }));
}

TEST(ApplicationSignals, LeavesExactlyTheHandledSignalsAndAbortUnblocked) {
    EXPECT_EQ(0, InChild([] {
                  RecordingApplication app;
                  if (app.InstallSignals() != 0 || !app.ErrorText().empty()) {
                      return false;
                  }
                  sigset_t mask;
                  sigprocmask(SIG_SETMASK, nullptr, &mask);
                  for (const int sig :
                       {SIGABRT, SIGINT, SIGQUIT, SIGTERM, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
                      if (sigismember(&mask, sig) != 0) {
                          return false;
                      }
                  }
                  for (const int sig : {SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD}) {
                      if (sigismember(&mask, sig) != 1) {
                          return false;
                      }
                  }
                  return true;
              }));
}

TEST(ApplicationSignals, InstallsTheFaultHandlersWithTheResetFlagAlone) {
    EXPECT_EQ(0, InChild([] {
                  RecordingApplication app;
                  (void)app.InstallSignals();
                  for (const int sig : {SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
                      struct sigaction action {};
                      sigaction(sig, nullptr, &action);
                      const auto flags = static_cast<unsigned>(action.sa_flags);
                      if ((flags & SA_RESETHAND) == 0 || (flags & SA_SIGINFO) != 0) {
                          return false;
                      }
                  }
                  for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
                      struct sigaction action {};
                      sigaction(sig, nullptr, &action);
                      if ((action.sa_flags & SA_SIGINFO) == 0) {
                          return false;
                      }
                  }
                  return true;
              }));
}

TEST(ApplicationSignals, EachTerminationSignalSetsTheFlag) {
    for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
        EXPECT_EQ(0, InChild([sig] {
                      RecordingApplication app;
                      (void)app.InstallSignals();
                      raise(sig);
                      return Application::s_term == 1;
                  }))
            << sig;
    }
}

TEST(ApplicationSignals, ATerminationSignalWaitsUntilItsThreadHasLeftTheLog) {
    for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
        EXPECT_EQ(0, InChild([sig] {
                      RecordingApplication app;
                      (void)app.InstallSignals();
                      bool hasWaited = false;
                      {
                          const UndisturbedByHandlers inside;
                          raise(sig);
                          hasWaited = Application::s_term == 0;
                      }
                      return hasWaited && Application::s_term == 1;
                  }))
            << sig;
    }
}

TEST(ApplicationSignals, AnUnknownSignalIsOnlyStored) {
    EXPECT_EQ(0, InChild([] {
                  Application::SignalHandler(SIGUSR1, nullptr, nullptr);
                  return Application::s_other == SIGUSR1 && Application::s_term == 0;
              }));
}

TEST(ApplicationSignals, AreLoggedAtTheirLevels) {
    const struct {
        int sig;
        const char* line;
    } cases[] = {{SIGINT, "Error: Received INT signal\n"},
                 {SIGQUIT, "Error: Received QUIT signal\n"},
                 {SIGTERM, "Debug: Received TERM signal\n"},
                 {SIGUSR1, "Debug: Received signal 10\n"}};
    vald::Log::SetLevel(vald::Log::kDebug);
    for (const auto& [sig, line] : cases) {
        const StderrCapture captured;
        errno = EDOM;
        Application::SignalHandler(sig, nullptr, nullptr);
        EXPECT_EQ(EDOM, errno);
        EXPECT_EQ(line, captured.Text());
    }
    vald::Log::SetLevel(vald::Log::kNotice);
    Application::s_term = 0;
    Application::s_other = 0;
}

TEST(ApplicationSignals, AFaultLogsItsMessageAndStackAndKillsTheProcess) {
    for (const auto& [sig, name] : {std::pair{SIGSEGV, "SEGV"}, std::pair{SIGBUS, "BUS"},
                                    std::pair{SIGFPE, "FPE"}, std::pair{SIGILL, "ILL"}}) {
        std::array<int, 2> ends{};
        ASSERT_EQ(0, pipe(ends.data()));
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            dup2(ends[1], STDERR_FILENO);
            const rlimit noCore{};  // the file that it would leave is of no use to anybody
            setrlimit(RLIMIT_CORE, &noCore);
            RecordingApplication app;
            (void)app.InstallSignals();
            raise(sig);
            _exit(0);
        }
        close(ends[1]);
        std::string text;
        std::array<char, 4096> piece{};
        for (ssize_t n = 0; (n = read(ends[0], piece.data(), piece.size())) > 0;) {
            text.append(piece.data(), static_cast<size_t>(n));
        }
        close(ends[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), sig);
        EXPECT_NE(std::string::npos,
                  text.find("Error: Received " + std::string(name) + " signal\n"));
        std::smatch frames;
        ASSERT_TRUE(std::regex_search(text, frames,
                                      std::regex("Error: Stacktrace \\(([0-9]+) frames\\):\n")))
            << text;
        const int count = std::stoi(frames[1]);
        EXPECT_GE(count, 1);
        EXPECT_LE(count, 10);
        std::istringstream lines(frames.suffix());
        int seen = 0;
        for (std::string line; std::getline(lines, line); ++seen) {
            EXPECT_TRUE(line.starts_with("Error: ")) << line;
        }
        EXPECT_EQ(count, seen) << text;
    }
}

}  // namespace
