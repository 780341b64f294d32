#include "daemon/stack_report.h"

#include <atomic>

#include "daemon/stack_listing.h"
#include "logging/log.h"
#include "logging/log_guards.h"

using vald::Log;

namespace {

constexpr int kMaxFrames = 20;

std::atomic<bool> s_reportPending{true};
static_assert(std::atomic<bool>::is_always_lock_free);

struct SignalCode {
    int sig;
    int code;
    const char* text;
};

constexpr SignalCode kSignalCodes[] = {
    {SIGILL, ILL_ILLOPC, "illegal opcode"},
    {SIGILL, ILL_ILLOPN, "illegal operand"},
    {SIGILL, ILL_ILLADR, "illegal addressing mode"},
    {SIGILL, ILL_ILLTRP, "illegal trap"},
    {SIGILL, ILL_PRVOPC, "privileged opcode"},
    {SIGILL, ILL_PRVREG, "privileged register"},
    {SIGILL, ILL_COPROC, "coprocessor error"},
    {SIGILL, ILL_BADSTK, "internal stack error"},
    {SIGFPE, FPE_INTDIV, "integer divide by zero"},
    {SIGFPE, FPE_INTOVF, "integer overflow"},
    {SIGFPE, FPE_FLTDIV, "floating point divide by zero"},
    {SIGFPE, FPE_FLTOVF, "floating point overflow"},
    {SIGFPE, FPE_FLTUND, "floating point underflow"},
    {SIGFPE, FPE_FLTRES, "floating point inexact result"},
    {SIGFPE, FPE_FLTINV, "floating point invalid operation"},
    {SIGFPE, FPE_FLTSUB, "subscript out of range"},
    {SIGSEGV, SEGV_MAPERR, "address not mapped to object"},
    {SIGSEGV, SEGV_ACCERR, "invalid permissions for mapped object"},
    {SIGBUS, BUS_ADRALN, "invalid address alignment"},
    {SIGBUS, BUS_ADRERR, "non-existant physical address"},
    {SIGBUS, BUS_OBJERR, "object specific hardware error"},
};

struct GeneralCode {
    int code;
    const char* text;
};

constexpr GeneralCode kGeneralCodes[] = {
    {SI_USER, "kill, sigsend, raise"},
    {SI_KERNEL, "kernel"},
    {SI_QUEUE, "sigqueue"},
    {SI_TIMER, "timer expiration"},
    {SI_MESGQ, "real time message queue state change"},
    {SI_ASYNCIO, "AIO completion"},
    {SI_SIGIO, "queued SIGIO"},
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
void ReportThreadFault(int sig, siginfo_t* info, void* /*context*/) {
    if (HoldBack(sig, info)) {
        return;
    }
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
