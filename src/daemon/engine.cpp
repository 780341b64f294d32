#include "daemon/engine.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "config/config.h"
#include "daemon/process.h"
#include "events/event_bridge.h"
#include "events/event_thread.h"
#include "logging/log.h"
#include "logging/log_guards.h"
#include "paths.h"
#include "snort/snort_error_reader.h"
#include "snort/snort_error_thread.h"
#include "snort/snort_event_reader.h"

using vald::Log;

// What comes up and what takes it down again, side by side. The numbers are the order in which each
// operation takes its steps. That order is the contract: what is logged, which process number the
// PID file holds, which thread finds what. A step without a partner is undone by the end of the
// process.
//
//   Initialize, once                              Terminate, once
//    1 hangup handler
//    2 inherited descriptors closed
//    3 application name
//    4 options
//    5 "starting"; the log's front
//    6 a termination that came so far
//    7 PID file                                    2 PID file removed
//    8 priority
//    9 background
//   10 both files examined
//   11 both files loaded
//   12 log opened; settings dumped                 7 "exiting"; the log stays open
//   13 main thread bound to its CPU
//   14 packet log interface                        6 packet log interface
//   15 bridge                                      5 bridge
//   16 event thread made                           3 event thread quit by force, deleted
//   17 error thread made                           4 error thread quit by force, deleted
//
//   StartEngine, in each cycle                    StopEngine, in each cycle
//    1 changed files loaded
//    2 bridge initialised                          5 bridge finalised
//    3 event thread started                        2 event thread asked, 4 waited for
//    4 error thread started unless it runs         1 error thread asked, 3 waited for: only when
//                                                    the process is to end
//    5 FIFOs made
//
//   Run makes the event reader when its loop begins and releases it when the loop has ended.

namespace {

constexpr int kHighestPriority = -20;
constexpr unsigned kJoinMs = 2000;
constexpr long kReadSeconds = 1;

// The signal handler looks at this pointer, too.
std::atomic<TarnEngine*> s_engine{nullptr};

void HangupHandler(int sig, siginfo_t* info, void* context) {
    if (HoldBack(sig, info)) {
        return;
    }
    const ErrnoKeeper keeper;
    TarnEngine* const engine = s_engine.load(std::memory_order_acquire);
    if (engine != nullptr) {  // a hangup on the last lines of main finds nobody
        engine->OnHangup(sig, info, context);
    }
}

}  // namespace

TarnEngine::TarnEngine()
    : m_configFile(tarn::paths::kConfigFile),
      m_eventConfigFile(tarn::paths::kEventConfigFile),
      m_baseAddress(reinterpret_cast<void*>(&TarnEngine::Instance)) {}

// Terminate has dealt with the threads and the bridge.
TarnEngine::~TarnEngine() = default;

TarnEngine* TarnEngine::Instance() {
    TarnEngine* engine = s_engine.load(std::memory_order_acquire);
    if (engine == nullptr) {
        engine = new TarnEngine();
        s_engine.store(engine, std::memory_order_release);
    }
    return engine;
}

void TarnEngine::ReleaseInstance() {
    delete s_engine.exchange(nullptr, std::memory_order_acq_rel);
}

void TarnEngine::SetAppName(const char* argv0) {
    const char* const slash = std::strrchr(argv0, '/');
    m_appName = slash == nullptr ? argv0 : slash + 1;
}

int TarnEngine::Initialize(int argc, char** argv) {
    if (!InstallHangupHandler()) {  // 1
        return -1;
    }
    CloseInheritedDescriptors();          // 2
    SetAppName(argc > 0 ? argv[0] : "");  // 3
    if (!ParseOptions(argc, argv)) {      // 4
        return -1;
    }
    Log::Notice("%s starting", m_appName.c_str());  // 5
    if (Log::GetInstance() == nullptr) {
        Log::Error("Unable to create logging facility");
        return -1;
    }
    if (s_term == 1) {  // 6
        Log::Notice("Termination signal received, exiting.");
        exit(0);
    }
    if (!ClaimPidFile()) {  // 7
        return -1;
    }
    RaisePriority();      // 8
    if (m_runAsDaemon) {  // 9
        Log::Debug("Running %s as a daemon process", m_appName.c_str());
        // Deliberate: it changes to "/" before the files are examined, so a relative name resolves
        // from there.
        Daemonize(true);
    }
    if (!ExamineFiles()) {  // 10
        return -1;
    }
    Config::Initialize();
    Config::Load(m_configFile.c_str(), Config::kMainFile);  // 11
    Config::Load(m_eventConfigFile.c_str(), Config::kEventFile);
    OpenLog();        // 12
    PinToSnortCpu();  // 13
    OpenPacketLog();  // 14
    ApplyEvidenceSettings();

    m_bridge = EventBridge::GetInstance();  // 15
    if (m_bridge == nullptr) {
        Log::GetInstance()->Write(Log::kError, "Error initializing the engine");
        return -1;
    }
    if (Config::s_debugSingle == 0) {  // 16
        MakeEventThread();
    }
    m_errorThread = new SnortErrorThread("snorterrorthread", Config::s_snortCpu);  // 17
    return 0;
}

int TarnEngine::Terminate() {
    Log::Debug("Terminate TaRN");  // 1
    if (m_pidFileCreated) {
        (void)RemovePidFile(m_pidFile.c_str());  // 2; it may be gone already
    }
    QuitRemaining(m_eventThread, "Event thread is still alive. Force quit it.");  // 3
    QuitRemaining(m_errorThread, "Error thread is still alive. Force quit it.");  // 4
    // Deliberate: a reader that is left by a start that failed half-way keeps its reference of the
    // bridge, and the bridge its own of the packet log interface. The process ends anyway, and the
    // packet logging daemon does not learn of an engine that ends before it ran.
    if (m_bridge != nullptr && !m_threadAbandoned) {
        std::exchange(m_bridge, nullptr)->Release();  // 5
    }
    ClosePacketLog();                            // 6
    Log::Info("%s exiting", m_appName.c_str());  // 7
    return 0;
}

int TarnEngine::Run() {
    const int failure = StartEngine();
    if (failure != 0) {
        return failure;
    }
    Log* const log = Log::GetInstance();
    log->Write(Log::kDebug, "Enter event reader loop...");
    // Deliberate: a hangup that came since the last loop is lost here; StartEngine has just looked.
    m_hangup.store(false, std::memory_order_release);
    SnortEventReader* const reader = SnortEventReader::Instance();
    while (s_term != 1) {
        (void)reader->ReadEvent(kReadSeconds);  // the reader logs; the loop is the retry
        if (m_hangup.load(std::memory_order_acquire)) {
            break;
        }
    }
    log->Write(Log::kDebug, "Exit event reader loop...");
    SnortEventReader::ReleaseInstance();
    return StopEngine();
}

int TarnEngine::StartEngine() {
    if (!LoadChangedFiles()) {  // 1
        return kStatusFailed;
    }
    if (m_bridge->Initialize() != 0) {  // 2
        Log::GetInstance()->Write(Log::kError, "Error starting the engine");
        return kStatusFailed;
    }
    if (Config::s_debugSingle == 0 && !StartEventThread()) {  // 3
        return kStatusFailed;
    }
    if (!m_errorThread->IsRunning()) {  // 4
        Log::GetInstance()->Write(Log::kDebug, "Want to start ERROR thread");
        (void)m_errorThread->Start(false);  // one that did not start is seen at the next reload
    }
    // Deliberate: the threads are up already. The error thread tries its FIFO again and again until
    // it is there.
    if (!SnortEventReader::Instance()->CreateFifo() ||  // 5
        !SnortErrorReader::Instance()->CreateFifo()) {
        return kStatusFailed;
    }
    return 0;
}

int TarnEngine::StopEngine() {
    // Deliberate: a hangup leaves the error thread running. A termination signal that comes after
    // this line leaves it to Terminate.
    const bool stopErrorThread =
        s_term == 1 && AskToStop(m_errorThread, "Error thread is running, stop it");  // 1
    if (m_eventThread != nullptr) {
        // Deliberate: a thread that was made and has not come to its first line is waited for. It
        // is about to use the bridge, which ends below.
        (void)m_eventThread->AwaitBegun(kJoinMs);
    }
    const bool stopEventThread = AskToStop(m_eventThread, "EVENT thread is running, stop it");  // 2
    // Both end at the same time.
    if (stopErrorThread) {
        WindDown(m_errorThread, "Error thread join timeout exceeded");  // 3
    }
    if (stopEventThread) {
        WindDown(m_eventThread, "Event thread join timeout exceeded");  // 4
    }
    if (m_threadAbandoned) {
        return kStatusFailed;
    }
    m_bridge->Finalize();  // 5
    return 0;
}

void TarnEngine::RaisePriority() {
    errno = 0;
    if (nice(kHighestPriority) < 0 && errno != 0) {
        Log::Warning("Unable to increase packet processing priority");
    }
}

void TarnEngine::PinToSnortCpu() {
    const int cpu = Config::s_snortCpu;
    if (cpu < 0) {
        return;
    }
    if (BindCallingThreadToCpu(cpu)) {
        Log::GetInstance()->Write(Log::kDebug, "Set CPU affinity to %d", cpu);
    } else {
        Log::GetInstance()->Write(Log::kWarning, "Unable to set CPU affinity to %d", cpu);
    }
}

bool TarnEngine::InstallHangupHandler() {
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    (void)sigprocmask(SIG_UNBLOCK, &hangup, nullptr);  // fails only for arguments that are wrong

    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &HangupHandler;
    return sigaction(SIGHUP, &action, nullptr) == 0;
}

void TarnEngine::OnHangup(int sig, siginfo_t* /*info*/, void* /*context*/) {
    if (sig != SIGHUP) {
        Log::Debug("Received signal %d", sig);
        return;
    }
    Log::Debug("Received HUP signal");
    m_hangup.store(true, std::memory_order_release);
}

void TarnEngine::MakeEventThread() {
    m_eventThread = new EventThread("eventthread", 0, Config::s_engineCpu);
}

bool TarnEngine::StartEventThread() {
    Log* const log = Log::GetInstance();
    if (m_eventThread != nullptr && m_eventThread->IsRunning()) {
        log->Write(Log::kError,
                   "Event thread is running which should not be. Try stop it to fix this.");
        m_eventThread->Stop();
        WindDown(m_eventThread, "Event thread join timeout exceeded");
        if (m_threadAbandoned) {  // a second thread would take from the same ring
            return false;
        }
    }
    if (m_eventThread == nullptr) {
        MakeEventThread();
    }
    log->Write(Log::kDebug, "Want to start EVENT thread");
    (void)m_eventThread->Start(false);  // one that did not start is seen at the next reload
    return true;
}

template <typename Worker>
bool TarnEngine::AskToStop(Worker* worker, const char* message) {
    if (worker == nullptr || !worker->IsRunning()) {
        return false;
    }
    Log::GetInstance()->Write(Log::kDebug, "%s", message);
    worker->Stop();
    return true;
}

template <typename Worker>
void TarnEngine::WindDown(Worker*& worker, const char* message) {
    if (worker->Join(kJoinMs, nullptr)) {
        return;
    }
    Log::GetInstance()->Write(Log::kError, "%s", message);
    QuitAndDiscard(worker);
}

template <typename Worker>
void TarnEngine::QuitRemaining(Worker*& worker, const char* message) {
    if (worker == nullptr) {
        return;
    }
    (void)worker->AwaitBegun(kJoinMs);
    if (worker->IsRunning()) {
        Log::Error("%s", message);
    }
    QuitAndDiscard(worker);
}

template <typename Worker>
void TarnEngine::QuitAndDiscard(Worker*& worker) {
    worker->ForceQuit();  // leaves a thread alone that has ended
    Thread* const thread = std::exchange(worker, nullptr);
    if (thread->Settle(kJoinMs)) {
        delete thread;
    } else {
        // Deliberate: it hangs in the kernel and may return, so the object and what it uses stay in
        // memory, and the process ends with status 4.
        m_threadAbandoned = true;
    }
}
