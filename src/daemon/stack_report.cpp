#include "daemon/stack_report.h"

#include <execinfo.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdlib>

#include "logging/log.h"
#include "logging/log_guards.h"

namespace {

using vald::Log;

constexpr int kMaxFrames = 20;

std::atomic<bool> s_reportPending{true};
static_assert(std::atomic<bool>::is_always_lock_free);

struct SignalCode {
    int sig;
    int code;
    const char* text;
};

constexpr SignalCode kSignalCodes[] = {
    {SIGILL, 1, "illegal opcode"},
    {SIGILL, 2, "illegal operand"},
    {SIGILL, 3, "illegal addressing mode"},
    {SIGILL, 4, "illegal trap"},
    {SIGILL, 5, "privileged opcode"},
    {SIGILL, 6, "privileged register"},
    {SIGILL, 7, "coprocessor error"},
    {SIGILL, 8, "internal stack error"},
    {SIGFPE, 1, "integer divide by zero"},
    {SIGFPE, 2, "integer overflow"},
    {SIGFPE, 3, "floating point divide by zero"},
    {SIGFPE, 4, "floating point overflow"},
    {SIGFPE, 5, "floating point underflow"},
    {SIGFPE, 6, "floating point inexact result"},
    {SIGFPE, 7, "floating point invalid operation"},
    {SIGFPE, 8, "subscript out of range"},
    {SIGSEGV, 1, "address not mapped to object"},
    {SIGSEGV, 2, "invalid permissions for mapped object"},
    {SIGBUS, 1, "invalid address alignment"},
    {SIGBUS, 2, "non-existant physical address"},
    {SIGBUS, 3, "object specific hardware error"},
};

struct GeneralCode {
    int code;
    const char* text;
};

constexpr GeneralCode kGeneralCodes[] = {
    {0, "kill, sigsend, raise"},
    {128, "kernel"},
    {-1, "sigqueue"},
    {-2, "timer expiration"},
    {-3, "real time message queue state change"},
    {-4, "AIO completion"},
    {-5, "queued SIGIO"},
};

void ReportSignal(const siginfo_t& info) {
    Log::WriteConsole(1, "Received signal %d", info.si_signo);
    Log::WriteConsole(1, "Signal code %d (%s)", info.si_code,
                      SignalCodeText(info.si_signo, info.si_code));
    if (info.si_errno != 0) {
        Log::WriteConsole(1, "Associated errno %d", info.si_errno);
    }
    Log::WriteConsole(1, "Fault Address %p", info.si_addr);
}

void ReportStack() {
    std::array<void*, kMaxFrames> frames{};
    const int count = backtrace(frames.data(), kMaxFrames);
    if (count <= 0) {
        return;
    }
    char** const symbols = backtrace_symbols(frames.data(), count);
    if (symbols == nullptr) {
        return;
    }
    const auto frameCount = static_cast<size_t>(count);
    Log::WriteConsole(1, "Stacktrace (%zd frames):", static_cast<ssize_t>(count));
    for (size_t i = 0; i < frameCount; ++i) {
        Log::WriteConsole(1, "%zu: %s", i, symbols[i]);
    }
    std::free(symbols);
}

}  // namespace

void RequestStackReport(pthread_t thread) {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &ReportThreadFault;
    (void)sigaction(SIGUSR2, &action, nullptr);  // fails only for arguments that are wrong
    (void)pthread_kill(thread, SIGUSR2);         // a thread that has ended has nothing to report
}

// Deliberate: one report in a process. Threads that fault together would mix their lines.
void ReportThreadFault(int /*sig*/, siginfo_t* info, void* /*context*/) {
    const ErrnoKeeper keeper;
    if (s_reportPending.exchange(false, std::memory_order_acq_rel)) {
        if (info != nullptr) {
            ReportSignal(*info);
        }
        ReportStack();
    }
}

const char* SignalCodeText(int sig, int code) {
    for (const SignalCode& entry : kSignalCodes) {
        if (entry.sig == sig && entry.code == code) {
            return entry.text;
        }
    }
    for (const GeneralCode& entry : kGeneralCodes) {
        if (entry.code == code) {
            return entry.text;
        }
    }
    return "unknown";
}
