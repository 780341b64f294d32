#include "daemon/stack_report.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "logging/log_guards.h"
#include "support/stderr_capture.h"

namespace {

TEST(SignalCodeText, NamesTheCodesOfEachSignal) {
    const struct {
        int sig;
        std::vector<const char*> texts;
    } tables[] = {
        {SIGILL,
         {"illegal opcode", "illegal operand", "illegal addressing mode", "illegal trap",
          "privileged opcode", "privileged register", "coprocessor error", "internal stack error"}},
        {SIGFPE,
         {"integer divide by zero", "integer overflow", "floating point divide by zero",
          "floating point overflow", "floating point underflow", "floating point inexact result",
          "floating point invalid operation", "subscript out of range"}},
        {SIGSEGV, {"address not mapped to object", "invalid permissions for mapped object"}},
        {SIGBUS,
         {"invalid address alignment", "non-existant physical address",
          "object specific hardware error"}},
    };
    for (const auto& table : tables) {
        int code = 0;
        for (const char* const text : table.texts) {
            EXPECT_STREQ(SignalCodeText(table.sig, ++code), text) << table.sig;
        }
        EXPECT_STREQ("unknown", SignalCodeText(table.sig, code + 1)) << table.sig;
    }
}

TEST(SignalCodeText, NamesTheGeneralCodesForAnySignal) {
    for (const int sig : {SIGUSR2, SIGSEGV}) {
        EXPECT_STREQ("kill, sigsend, raise", SignalCodeText(sig, 0));
        EXPECT_STREQ("kernel", SignalCodeText(sig, 128));
        EXPECT_STREQ("sigqueue", SignalCodeText(sig, -1));
        EXPECT_STREQ("timer expiration", SignalCodeText(sig, -2));
        EXPECT_STREQ("real time message queue state change", SignalCodeText(sig, -3));
        EXPECT_STREQ("AIO completion", SignalCodeText(sig, -4));
        EXPECT_STREQ("queued SIGIO", SignalCodeText(sig, -5));
    }
}

TEST(SignalCodeText, IsUnknownForACodeThatIsInNoTable) {
    for (const int code : {-7, -6, 1, 127, 129}) {
        EXPECT_STREQ("unknown", SignalCodeText(SIGUSR2, code));
    }
}

// One report comes out of a process, so each case runs in a child of its own; its standard error
// is what the case looks at.

siginfo_t Fault(int error) {
    siginfo_t info{};
    info.si_signo = SIGSEGV;
    info.si_code = 1;
    info.si_errno = error;
    info.si_addr = reinterpret_cast<void*>(0x1234);
    return info;
}

std::vector<std::string> Report(siginfo_t* info) {
    const StderrCapture capture;
    ReportThreadFault(SIGSEGV, info, nullptr);
    std::vector<std::string> lines;
    std::istringstream text(capture.Text());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool IsStack(const std::vector<std::string>& lines, size_t from) {
    const size_t frames = lines.size() - from - 1;
    if (lines.size() < from + 2 ||
        lines[from] != "Error: Stacktrace (" + std::to_string(frames) + " frames):") {
        return false;
    }
    for (size_t i = 0; i < frames; ++i) {
        if (!lines[from + 1 + i].starts_with("Error: " + std::to_string(i) + ": ")) {
            return false;
        }
    }
    return frames <= 20;
}

TEST(ReportThreadFault, WritesTheSignalAndANumberedStack) {
    EXPECT_EXIT(
        {
            siginfo_t info = Fault(7);
            const auto lines = Report(&info);
            _exit(lines.size() > 5 && lines[0] == "Error: Received signal 11" &&
                          lines[1] == "Error: Signal code 1 (address not mapped to object)" &&
                          lines[2] == "Error: Associated errno 7" &&
                          lines[3] == "Error: Fault Address 0x1234" && IsStack(lines, 4)
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ReportThreadFault, LeavesOutAnErrnoOfZero) {
    EXPECT_EXIT(
        {
            siginfo_t info = Fault(0);
            const auto lines = Report(&info);
            _exit(lines.size() > 4 && lines[2] == "Error: Fault Address 0x1234" && IsStack(lines, 3)
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ReportThreadFault, WritesTheStackAloneWithoutTheSignalsDetails) {
    EXPECT_EXIT(_exit(IsStack(Report(nullptr), 0) ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(ReportThreadFault, WaitsUntilItsThreadHasLeftTheLog) {
    EXPECT_EXIT(
        {
            const StderrCapture capture;
            bool hasWaited = false;
            {
                const UndisturbedByHandlers inside;
                RequestStackReport(pthread_self());
                hasWaited = capture.Text().empty();
            }
            _exit(hasWaited && capture.Text().starts_with("Error: Received signal") ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ReportThreadFault, KeepsToOneReportInAProcessAndLeavesErrnoAlone) {
    EXPECT_EXIT(
        {
            const bool isFirst = !Report(nullptr).empty();
            errno = 99;
            ReportThreadFault(SIGUSR2, nullptr, nullptr);
            const bool isKept = errno == 99;
            _exit(isFirst && isKept && Report(nullptr).empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// A thread that can be seen by its name in the stack.
extern "C" void SpinUntil(const std::atomic<bool>* done) {
    while (!*done) {
        sched_yield();
    }
}

TEST(RequestStackReport, ReportsOnTheThreadThatRuns) {
    EXPECT_EXIT(
        {
            const StderrCapture capture;
            std::atomic<bool> done{false};
            std::thread thread(SpinUntil, &done);
            RequestStackReport(thread.native_handle());
            while (capture.Text().find("Error: 0: ") == std::string::npos) {
                sched_yield();
            }
            done = true;
            thread.join();
            const std::string text = capture.Text();
            _exit(text.starts_with("Error: Received signal " + std::to_string(SIGUSR2) +
                                   "\nError: Signal code -6 (unknown)\n")
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
