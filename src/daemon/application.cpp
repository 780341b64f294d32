#include "daemon/application.h"

#include <execinfo.h>

#include <array>

#include "daemon/stack_listing.h"
#include "logging/log.h"
#include "logging/log_guards.h"

using vald::Log;

std::atomic<int> Application::s_term{0};
std::atomic<int> Application::s_other{0};

namespace {

constexpr int kMaxFrames = 10;

// The fault signals are installed without SA_SIGINFO, so their handler gets the number alone.
void FaultHandler(int sig) {
    Application::SignalHandler(sig, nullptr, nullptr);
}

void LogFaultAndRaise(const char* message, int sig) {
    Log::Critical("%s", message);
    Application::LogBacktrace();
    // The reset flag has put the default action back: once the handler returns, this ends the
    // process with its core dump.
    raise(sig);
}

}  // namespace

int Application::Main(int argc, char** argv) {
    const std::string path = argc > 0 ? argv[0] : "";
    m_programName = path.substr(path.rfind('/') + 1);

    (void)InstallSignals();  // a failure is kept in m_status and m_errorText; the process goes on

    if (Initialize(argc, argv) != 0) {
        m_status = kStatusFailed;
        s_term = 1;
    }

    const bool alternate = m_useAlternateRun;
    while (s_term == 0) {
        m_status = alternate ? RunAlternate() : Run();
        if (m_status != 0) {
            break;
        }
    }
    Terminate();
    return m_status;
}

int Application::InstallSignals() {
    // The first use of the unwinder loads it, which allocates. A fault handler must not be first.
    std::array<void*, 1> unused{};
    (void)backtrace(unused.data(), static_cast<int>(unused.size()));

    sigset_t blocked;
    sigfillset(&blocked);
    for (const int open : {SIGABRT, SIGINT, SIGQUIT, SIGTERM, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
        sigdelset(&blocked, open);
    }
    if (sigprocmask(SIG_SETMASK, &blocked, nullptr) != 0) {
        return RecordSignalFailure("sigprocmask");
    }

    for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
        struct sigaction action {};
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = &Application::SignalHandler;
        if (sigaction(sig, &action, nullptr) != 0) {
            return RecordSignalFailure("sigaction");
        }
    }
    for (const int sig : {SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
        struct sigaction action {};
        sigemptyset(&action.sa_mask);
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        action.sa_handler = &FaultHandler;
        if (sigaction(sig, &action, nullptr) != 0) {
            return RecordSignalFailure("sigaction");
        }
    }
    return m_status;
}

int Application::RecordSignalFailure(const char* call) {
    m_errorText = call;
    m_status = 1;
    return m_status;
}

void Application::SignalHandler(int sig, siginfo_t* info, void* /*context*/) {
    if (HoldBack(sig, info)) {
        return;
    }
    const ErrnoKeeper keeper;
    switch (sig) {
        case SIGINT:
            Log::Error("Received INT signal");
            s_term = 1;
            break;
        case SIGQUIT:
            Log::Error("Received QUIT signal");
            s_term = 1;
            break;
        case SIGTERM:
            Log::Debug("Received TERM signal");
            s_term = 1;
            break;
        case SIGILL:
            LogFaultAndRaise("Received ILL signal", sig);
            break;
        case SIGBUS:
            LogFaultAndRaise("Received BUS signal", sig);
            break;
        case SIGFPE:
            LogFaultAndRaise("Received FPE signal", sig);
            break;
        case SIGSEGV:
            LogFaultAndRaise("Received SEGV signal", sig);
            break;
        default:
            Log::Debug("Received signal %d", sig);
            s_other = sig;
            break;
    }
}

void Application::LogBacktrace() {
    ListStack<kMaxFrames>([](ssize_t count) { Log::Critical("Stacktrace (%zd frames):", count); },
                          [](size_t /*index*/, const char* frame) { Log::Critical("%s", frame); });
}
