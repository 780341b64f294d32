#pragma once

// The frame of a daemon's life: signal mask and handlers, then Initialize once, Run until asked to
// stop, and Terminate once. A derived class supplies those three.
//
// Threads: Main runs on the main thread. The handlers run on whichever thread takes the signal and
// only write s_term and s_other, beside their log lines.

#include <atomic>
#include <csignal>
#include <string>

class Application {
  public:
    // The exit status of a start or a cycle that failed.
    static constexpr int kStatusFailed = 4;

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // 0 for success; anything else ends the process with kStatusFailed after Terminate.
    [[nodiscard]] virtual int Initialize(int argc, char** argv) = 0;
    virtual int Terminate() = 0;
    // One cycle: 0 to be called again, anything else is the exit status.
    [[nodiscard]] virtual int Run() = 0;
    [[nodiscard]] virtual int RunAlternate() { return m_status; }
    // The destructor comes last among the virtual operations.
    virtual ~Application() = default;

    // The whole life of the process. The result is its exit status.
    [[nodiscard]] int Main(int argc, char** argv);

    // Blocks every signal but those that the frame handles and SIGABRT, and installs the handlers.
    // 0, or 1 with the name of the failed call in m_errorText.
    int InstallSignals();

    // The handler of the frame. For the fault signals `info` and `context` are null.
    static void SignalHandler(int sig, siginfo_t* info, void* context);

    // Logs the stack of the calling thread, at most ten frames.
    static void LogBacktrace();

    // 1 after a termination signal or a failed Initialize; never goes back to 0.
    static std::atomic<int> s_term;
    // Number of the last signal that the handler did not know. Deliberate: stored, not read.
    static std::atomic<int> s_other;

  protected:
    Application() = default;

    int m_status = 0;                // what Main returns
    bool m_useAlternateRun = false;  // selects RunAlternate instead of Run; nothing sets it
    // The system call that failed in InstallSignals. Deliberate: stored, not read.
    std::string m_errorText;
    std::string m_programName = "unknown";  // Deliberate: stored, not read

  private:
    [[nodiscard]] int RecordSignalFailure(const char* call);

    static_assert(std::atomic<int>::is_always_lock_free);
};
