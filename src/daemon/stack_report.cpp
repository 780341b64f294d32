#include "daemon/stack_report.h"

#include <atomic>

#include "daemon/stack_listing.h"
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
    Log::WriteConsole(Log::kError, "Received signal %d", info.si_signo);
    Log::WriteConsole(Log::kError, "Signal code %d (%s)", info.si_code,
                      SignalCodeText(info.si_signo, info.si_code));
    if (info.si_errno != 0) {
        Log::WriteConsole(Log::kError, "Associated errno %d", info.si_errno);
    }
    Log::WriteConsole(Log::kError, "Fault Address %p", info.si_addr);
}

void ReportStack() {
    ListStack<kMaxFrames>(
        [](ssize_t count) { Log::WriteConsole(Log::kError, "Stacktrace (%zd frames):", count); },
        [](size_t index, const char* frame) {
            Log::WriteConsole(Log::kError, "%zu: %s", index, frame);
        });
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
