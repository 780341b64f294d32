#include "daemon/engine.h"

#include <sys/stat.h>
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
#include "packet_log/packet_log_ctrl_if.h"
#include "paths.h"
#include "snort/snort_error_reader.h"
#include "snort/snort_error_thread.h"
#include "snort/snort_event_reader.h"

using vald::Log;

namespace {

constexpr int kFirstInheritedDescriptor = 3;
constexpr int kHighestPriority = -20;
constexpr unsigned kJoinMs = 2000;
constexpr long kReadSeconds = 1;

// The signal handler looks at this pointer, too.
std::atomic<TarnEngine*> s_engine{nullptr};

void HangupHandler(int sig, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    TarnEngine* const engine = s_engine.load(std::memory_order_acquire);
    if (engine != nullptr) {  // a hangup on the last lines of main finds nobody
        engine->OnHangup(sig, info, context);
    }
    errno = savedErrno;
}

void CloseInheritedDescriptors() {
    const long limit = sysconf(_SC_OPEN_MAX);
    if (limit <= kFirstInheritedDescriptor) {
        return;
    }
    // One call where the kernel has it: the limit can be a million.
    if (close_range(kFirstInheritedDescriptor, static_cast<unsigned>(limit - 1), 0) == 0) {
        return;
    }
    for (long fd = kFirstInheritedDescriptor; fd < limit; ++fd) {
        close(static_cast<int>(fd));
    }
}

// False with its message when `path` is not a regular file that can be examined.
[[nodiscard]] bool ExamineFile(const std::string& path, time_t* modified) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        Log::Error("Cannot obtain file status for \"%s\".", path.c_str());
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        Log::Error("Invalid file status mode %u for \"%s\".", status.st_mode, path.c_str());
        return false;
    }
    *modified = status.st_mtime;
    return true;
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
    const char* const slash = strrchr(argv0, '/');
    m_appName = slash == nullptr ? argv0 : slash + 1;
}

int TarnEngine::Initialize(int argc, char** argv) {
    if (!InstallHangupHandler()) {
        return -1;
    }
    CloseInheritedDescriptors();
    SetAppName(argc > 0 ? argv[0] : "");
    if (!ParseOptions(argc, argv)) {
        return -1;
    }

    Log::Notice("%s starting", m_appName.c_str());
    if (Log::GetInstance() == nullptr) {
        Log::Error("Unable to create logging facility");
        return -1;
    }
    if (s_term == 1) {
        Log::Notice("Termination signal received, exiting.");
        exit(0);
    }
    if (!ClaimPidFile()) {
        return -1;
    }

    errno = 0;
    if (nice(kHighestPriority) < 0 && errno != 0) {
        Log::Warning("Unable to increase packet processing priority");
    }
    if (m_runAsDaemon) {
        Log::Debug("Running %s as a daemon process", m_appName.c_str());
        Daemonize(true);
    }

    if (m_configFile.empty()) {
        Log::Error("No TaRN configuration file specified");
        return -1;
    }
    if (!ExamineFile(m_configFile, &m_configMtime)) {
        return -1;
    }
    if (m_eventConfigFile.empty()) {
        Log::Error("No snort configuration file specified");
        return -1;
    }
    // The time is taken before the file is read, so that an edit between the two counts as one.
    if (!ExamineFile(m_eventConfigFile, &m_eventConfigMtime)) {
        return -1;
    }
    Config::Initialize();
    Config::Load(m_configFile.c_str(), Config::kMainFile);
    Config::Load(m_eventConfigFile.c_str(), Config::kEventFile);

    Log* const log = Log::GetInstance();
    log->Open(m_appName.c_str(), Config::s_logFile.c_str(), Config::s_logLevel,
              Config::s_logMaxFileSize, Config::s_logMaxFiles);
    log->Write(Log::kNotice, "%s base address: %p", m_appName.c_str(), m_baseAddress);
    log->Write(Log::kDebug, "Using config file %s, snort config file %s", m_configFile.c_str(),
               m_eventConfigFile.c_str());
    Config::Dump();
    PinToSnortCpu();
    OpenPacketLog();
    ApplyEvidenceSettings();

    m_bridge = EventBridge::GetInstance();
    if (m_bridge == nullptr) {
        log->Write(Log::kError, "Error initializing the engine");
        return -1;
    }
    if (Config::s_debugSingle == 0) {
        MakeEventThread();
    }
    m_errorThread = new SnortErrorThread("snorterrorthread", Config::s_snortCpu);
    return 0;
}

std::string TarnEngine::PidFilePath(const std::string& path, uint32_t number) {
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash;
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot < name) {
        dot = path.size();
    }
    std::string spliced = path;
    return spliced.insert(dot, std::to_string(number));
}

bool TarnEngine::ClaimPidFile() {
    m_pidFile = PidFilePath(tarn::paths::kPidFile, m_instanceNumber);
    int pid = 0;
    if (IsProcessRunning(m_appName.c_str(), m_pidFile.c_str(), &pid)) {
        Log::Error("Process %s with PID %d is already running. Exiting.", m_appName.c_str(), pid);
        return false;
    }
    // Deliberate: this one message goes to the log file, which is not open yet, and is lost.
    Log::GetInstance()->Write(Log::kDebug, "Creating pid file %s", m_pidFile.c_str());
    // Deliberate: with -d the file is written before the fork and so holds the number of the
    // parent, which ends at once. Start scripts read it as the number of the process they made.
    m_pidFileCreated = WritePidFile(m_pidFile.c_str());
    if (!m_pidFileCreated) {
        Log::Warning("Unable to create PID file: %s", m_pidFile.c_str());
    }
    return true;
}

void TarnEngine::PinToSnortCpu() const {
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

bool TarnEngine::LoadChangedFiles() {
    bool changed = false;
    time_t modified = 0;
    if (!ExamineFile(m_configFile, &modified)) {
        return false;
    }
    if (modified != m_configMtime) {
        Config::Load(m_configFile.c_str(), Config::kMainFile);
        m_configMtime = modified;
        ApplyEvidenceSettings();
        Log::SetLevel(Config::s_logLevel);
        changed = true;
    }
    if (!ExamineFile(m_eventConfigFile, &modified)) {
        return false;
    }
    if (modified != m_eventConfigMtime) {
        Config::Load(m_eventConfigFile.c_str(), Config::kEventFile);
        m_eventConfigMtime = modified;
        changed = true;
    }
    if (changed) {
        Log::GetInstance()->Write(Log::kNotice, "Configuration reloaded.");
        Config::Dump();
    }
    return true;
}

// ForceQuit leaves a thread alone that has ended.
template <typename Worker>
void TarnEngine::QuitAndDiscard(Worker*& worker) {
    worker->ForceQuit();
    Discard(std::exchange(worker, nullptr));
}

int TarnEngine::StartEngine() {
    Log* const log = Log::GetInstance();
    if (!LoadChangedFiles()) {
        return kStatusFailed;
    }
    if (m_bridge->Initialize() != 0) {
        log->Write(Log::kError, "Error starting the engine");
        return kStatusFailed;
    }

    if (Config::s_debugSingle == 0) {
        if (m_eventThread != nullptr && m_eventThread->IsRunning()) {
            log->Write(Log::kError,
                       "Event thread is running which should not be. Try stop it to fix this.");
            m_eventThread->Stop();
            JoinOrQuitEventThread();
            if (m_threadAbandoned) {  // a second thread would take from the same ring
                return kStatusFailed;
            }
        }
        if (m_eventThread == nullptr) {
            MakeEventThread();
        }
        log->Write(Log::kDebug, "Want to start EVENT thread");
        // A thread that did not start is seen at the next reload.
        (void)m_eventThread->Start(false);
    }
    if (!m_errorThread->IsRunning()) {
        log->Write(Log::kDebug, "Want to start ERROR thread");
        (void)m_errorThread->Start(false);  // as above
    }

    // Deliberate: the threads are up already. The error thread tries its FIFO again and again until
    // it is there.
    if (!SnortEventReader::Instance()->CreateFifo() ||
        !SnortErrorReader::Instance()->CreateFifo()) {
        return kStatusFailed;
    }
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

int TarnEngine::StopEngine() {
    Log* const log = Log::GetInstance();
    // Deliberate: a hangup leaves the error thread running. A termination signal that comes behind
    // this line leaves it to Terminate.
    const bool stopErrorThread =
        s_term == 1 && m_errorThread != nullptr && m_errorThread->IsRunning();
    if (stopErrorThread) {
        log->Write(Log::kDebug, "Error thread is running, stop it");
        m_errorThread->Stop();
    }
    bool stopEventThread = false;
    if (m_eventThread != nullptr) {
        // A thread that was made and has not come to its first line is about to use the bridge.
        (void)m_eventThread->AwaitBegun(kJoinMs);
        stopEventThread = m_eventThread->IsRunning();
    }
    if (stopEventThread) {
        log->Write(Log::kDebug, "EVENT thread is running, stop it");
        m_eventThread->Stop();
    }
    // Both wind down at the same time.
    if (stopErrorThread && !m_errorThread->Join(kJoinMs, nullptr)) {
        log->Write(Log::kError, "Error thread join timeout exceeded");
        QuitAndDiscard(m_errorThread);
    }
    if (stopEventThread) {
        JoinOrQuitEventThread();
    }
    if (m_threadAbandoned) {
        return kStatusFailed;
    }
    m_bridge->Finalize();
    return 0;
}

int TarnEngine::Terminate() {
    Log::Debug("Terminate TaRN");
    if (m_pidFileCreated) {
        (void)RemovePidFile(m_pidFile.c_str());  // gone already is as good
    }
    if (m_eventThread != nullptr) {
        (void)m_eventThread->AwaitBegun(kJoinMs);
        if (m_eventThread->IsRunning()) {
            Log::Error("Event thread is still alive. Force quit it.");
        }
        QuitAndDiscard(m_eventThread);
    }
    if (m_errorThread != nullptr) {
        (void)m_errorThread->AwaitBegun(kJoinMs);
        if (m_errorThread->IsRunning()) {
            Log::Error("Error thread is still alive. Force quit it.");
        }
        QuitAndDiscard(m_errorThread);
    }
    // Both readers are still there after a start that failed half-way.
    SnortEventReader::ReleaseInstance();
    if (!m_threadAbandoned) {
        SnortErrorReader::ReleaseInstance();
    }
    if (m_bridge != nullptr && !m_threadAbandoned) {
        m_bridge->Release();
        m_bridge = nullptr;
    }
    ClosePacketLog();
    Log::Info("%s exiting", m_appName.c_str());
    return 0;
}

void TarnEngine::OpenPacketLog() {
    Log* const log = Log::GetInstance();
    log->Write(Log::kDebug, "Initializing Channel to Packet Logging Daemon");
    m_packetLogCtrl = PacketLogCtrl::PacketLogCtrlIF::GetInstance();
    if (m_packetLogCtrl == nullptr) {
        log->Write(
            1,
            "Cannot get instance  of Packet Logging Daemon Interface.  Packet Logging will be disabled.");
    }
}

void TarnEngine::ApplyEvidenceSettings() {
    if (m_packetLogCtrl == nullptr) {
        return;
    }
    const auto setInt = [this](const char* name, int value) {
        (void)m_packetLogCtrl->SetIntParameter(name, static_cast<uint32_t>(value));
    };
    m_packetLogCtrl->m_bEnabled = true;
    setInt("engine.logevidence.maxfiles", Config::s_evidenceMaxFiles);
    setInt("engine.logevidence.maxkbytes", Config::s_evidenceMaxKBytes);
    setInt("engine.logevidence.count", Config::s_evidencePacketCount);
    setInt("engine.logevidence.timeout", Config::s_evidenceFileTimeout);
    (void)m_packetLogCtrl->SetStringParameter("engine.logevidence.format",
                                              Config::s_evidenceFileFormat.c_str());
    setInt("engine.logevidence.bufferctrlsize", Config::s_evidenceBufferCtrlSize);
    setInt("engine.logevidence.suppress", Config::s_evidenceSuppress);
    (void)m_packetLogCtrl->Initialize();  // the packet logging daemon may come later or never
}

void TarnEngine::ClosePacketLog() {
    if (m_packetLogCtrl == nullptr) {
        return;
    }
    Log* const log = Log::GetInstance();
    log->Write(Log::kInfo, "Number of Control Messages Attempted: %d.",
               static_cast<int>(m_packetLogCtrl->m_uAttempted));
    log->Write(Log::kInfo, "Number of Start Offending Packet Capture message failures: %d.",
               static_cast<int>(m_packetLogCtrl->m_uFailOffendingPacket));
    log->Write(Log::kInfo, "Number of Frames not sent to packet logging daemon: %d.",
               static_cast<int>(m_packetLogCtrl->m_uFramesNotSent));
    log->Write(Log::kInfo, "Number of Control Messages Skipped due to throttling: %d.",
               static_cast<int>(m_packetLogCtrl->m_uThrottled));
    if (m_packetLogCtrl->Release() == 0) {
        m_packetLogCtrl = nullptr;
        return;
    }
    log->Write(Log::kError,
               "%s is exiting without having completely freed the Packet Log Control interface.",
               m_appName.c_str());
}

void TarnEngine::MakeEventThread() {
    m_eventThread = new EventThread("eventthread", 0, Config::s_engineCpu);
}

void TarnEngine::JoinOrQuitEventThread() {
    if (m_eventThread->Join(kJoinMs, nullptr)) {
        return;
    }
    Log::GetInstance()->Write(Log::kError, "Event thread join timeout exceeded");
    QuitAndDiscard(m_eventThread);
}

void TarnEngine::Discard(Thread* thread) {
    if (thread->Settle(kJoinMs)) {
        delete thread;
    } else {
        // It hangs in the kernel and may come back: the object and what it uses must outlive it.
        m_threadAbandoned = true;
    }
}
