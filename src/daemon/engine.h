#pragma once

// The one application of the daemon: it decides in which order the process comes up, which threads
// exist, what a hangup reloads, and how all of it is taken down again.
//
// A hangup patches nothing in place. It ends the reader loop, the event side is taken down, and
// the frame calls Run again, which reads the files that have changed and brings it up again.
//
// Owns the threads, one reference each of EventBridge and PacketLogCtrlIF, and the PID file. main()
// owns the engine through Instance and ReleaseInstance.
//
// Threads: everything here runs on the main thread, which is also the reader of the alert FIFO;
// OnHangup runs in a signal handler and only sets a flag. The worker threads do not see the engine.
// A hangup restarts the event thread and leaves the error thread running.

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <string>

#include "daemon/application.h"

class EventBridge;
class EventThread;
class SnortErrorThread;

namespace PacketLogCtrl {
class PacketLogCtrlIF;
}

class TarnEngine : public Application {
  public:
    // The instance, made on first use.
    static TarnEngine* Instance();
    static void ReleaseInstance();

    // All that happens once in a process, in a fixed order; starts no thread. 0, or -1.
    [[nodiscard]] int Initialize(int argc, char** argv) override;
    // The way out, also after a failed Initialize. Always 0.
    int Terminate() override;
    // One cycle: start, reader loop, stop. 0 to be called again, else the exit status.
    [[nodiscard]] int Run() override;
    [[nodiscard]] int RunAlternate() override { return Run(); }
    ~TarnEngine() override;

    [[nodiscard]] std::string GetAppName() const { return m_appName; }
    // Stores what follows the last "/" of argv0.
    void SetAppName(const char* argv0);
    [[nodiscard]] static std::string GetVersion();

    // True when the options are used up, false for one that is not known. -h and -v end the
    // process.
    [[nodiscard]] bool ParseOptions(int argc, char** argv);
    void ShowUsage() const;
    void ShowVersion() const;

    // False when the handler cannot be installed.
    [[nodiscard]] bool InstallHangupHandler();
    void OnHangup(int sig, siginfo_t* info, void* context);

    // 0, or kStatusFailed.
    [[nodiscard]] int StartEngine();
    // 0, or kStatusFailed when a thread hangs in the kernel and was abandoned.
    [[nodiscard]] int StopEngine();

    // Where the PID file of instance `number` lies: the digits go in before the last dot of the
    // file name, or after the name when it has none.
    [[nodiscard]] static std::string PidFilePath(const std::string& path, uint32_t number);

  private:
    TarnEngine();

    friend class TarnEnginePeer;  // tests

    // Steps of Initialize; those with a result log their own failure.
    [[nodiscard]] bool ClaimPidFile();
    static void RaisePriority();
    [[nodiscard]] bool ExamineFiles();
    void OpenLog();
    static void PinToSnortCpu();

    // False with its message when `path` is not a regular file that can be examined.
    [[nodiscard]] static bool ExamineFile(const std::string& path, time_t* modified);
    // False when a file cannot be examined any more.
    [[nodiscard]] bool LoadChangedFiles();

    // engine_packet_log.cpp
    void OpenPacketLog();
    void ApplyEvidenceSettings();
    void ClosePacketLog();

    void MakeEventThread();
    // False when a former thread hangs in the kernel and was abandoned.
    [[nodiscard]] bool StartEventThread();
    // Logs the message and asks for the end of a thread that runs. False when there is none.
    template <typename Worker>
    [[nodiscard]] static bool AskToStop(Worker* worker, const char* message);
    // Waits for the end of a thread that was asked. One that does not end in time is logged and
    // quit by force, and `worker` is null afterwards.
    template <typename Worker>
    void WindDown(Worker*& worker, const char* message);
    // Quits what is left of a thread, logs the message if it still ran, and makes `worker` null.
    template <typename Worker>
    void QuitRemaining(Worker*& worker, const char* message);
    template <typename Worker>
    void QuitAndDiscard(Worker*& worker);

    EventBridge* m_bridge = nullptr;            // owned as one reference
    EventThread* m_eventThread = nullptr;       // owned; stays null in single-thread mode
    SnortErrorThread* m_errorThread = nullptr;  // owned
    std::string m_pidFile;
    std::string m_configFile;
    std::string m_eventConfigFile;
    std::string m_appName = "unknown";
    time_t m_configMtime = 0;  // of m_configFile when last examined
    time_t m_eventConfigMtime = 0;
    bool m_runAsDaemon = false;
    bool m_pidFileCreated = false;  // this process wrote the PID file, so it removes it
    uint32_t m_instanceNumber = 0;  // spliced into the PID file's name; nothing sets another value
    void* m_baseAddress;            // logged once at start-up
    std::atomic<bool> m_hangup{false};  // set by the hangup handler; ends the reader loop
    // Owned as one reference; null means that packet logging is off.
    PacketLogCtrl::PacketLogCtrlIF* m_packetLogCtrl = nullptr;
    bool m_threadAbandoned = false;  // a cancelled thread did not end; what it uses must stay

    static_assert(std::atomic<bool>::is_always_lock_free);
};
