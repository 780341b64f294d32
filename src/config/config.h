#pragma once

// Every tuning value of the daemon, the table of per-signature settings, and the loader that reads
// both from their files. There are no instances: all operations and data are static and are ready
// before main() runs.
//
// docs/formats/tarn_conf.md, tarn_event_conf.md and state_file.md describe the files.
//
// Messages of a load go through the static functions of the log: at start, before the log is open,
// they reach standard error and the system log.
//
// Threads: Initialize, Load and what they call run on the main thread only. GetResponseSetting may
// be called by any thread. The numbers are atomics, since other threads read them while a load
// writes them; each is independent of the others, so relaxed order is enough. The strings belong to
// the main thread.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "paths.h"

class EventRuleTable;
class LoadObserver;
struct Node;

class Config {
  public:
    // Kinds of file; any other number loads lines that set nothing.
    static constexpr int kMainFile = 0;   // tarn.* keys
    static constexpr int kEventFile = 1;  // se.* keys

    Config() = delete;

    // Makes the event table ready. Runs once, before the first load.
    static void Initialize();

    // Reads the state file and then `path`. Values that neither names stay as they are, but a load
    // of kind kEventFile empties the event table first. A file that cannot be opened for reading
    // and writing is skipped without a message; null or empty `path` reads the state file only.
    static void Load(const char* path, int kind);

    // Applies one line of a file of this kind. A line that is no setting is logged and dropped.
    static void ParseLine(const std::string& line, int kind);

    // Sets one tarn.* key by its rule. False if there is no such key.
    static bool ApplySetting(const std::string& name, const std::string& value);

    // Sets one field of the pending event entry. False if the line did not lead to a setting.
    static bool ApplyEventSetting(const std::string& name, const std::string& value);

    // The settings of one Snort signature; empty, and logged, if it has none.
    [[nodiscard]] static std::shared_ptr<Node> GetResponseSetting(int eventId);

    // Logs every tarn.* key with its value at level 5.
    static void Dump();

    // Rewrites the state file with its two comment lines; settings in it are lost.
    static void Save();

    // The names of all tarn.* keys, in the order in which they are dumped.
    [[nodiscard]] static std::vector<std::string> SettingNames();

    // Never destroyed: a thread that the engine had to abandon may still look an event up while the
    // process ends.
    static EventRuleTable& s_eventTable;

    // Is called for each line of a load. Borrowed; null in the daemon.
    inline static LoadObserver* s_observer = nullptr;

    // Path of the configuration file opened last, and of the file that the daemon itself owns.
    inline static std::string s_configFile;  // Deliberate: stored, not read
    inline static std::string s_stateFile = tarn::paths::kStateFile;

    // tarn.log.*
    inline static std::atomic<int> s_logLevel = 3;  // 0 to 6
    inline static std::string s_logFile = tarn::paths::kLogFile;
    inline static std::atomic<int> s_logMaxFiles = 5;           // from 1, the current one included
    inline static std::atomic<int> s_logMaxFileSize = 2097152;  // bytes, from 1

    // tarn.snort.cpu, tarn.engine.*, tarn.debug.*; CPU numbers from 0, the channel from 1
    inline static std::atomic<int> s_snortCpu = 0;     // main thread and error thread
    inline static std::atomic<int> s_engineCpu = 0;    // event thread
    inline static std::atomic<int> s_engineCrm = 2;    // channel number of the CRM event queue
    inline static std::atomic<int> s_debugSingle = 0;  // non-zero: no event thread

    // tarn.evidencelog.*, passed on to the packet log interface; any number but for the timeout
    inline static std::string s_evidenceFileFormat = "pcap";
    inline static std::atomic<int> s_evidenceMaxFiles = 10;            // files
    inline static std::atomic<int> s_evidenceMaxKBytes = 10;           // kilobytes of a file
    inline static std::atomic<int> s_evidencePacketCount = 1;          // packets
    inline static std::atomic<int> s_evidenceFileTimeout = 15;         // minutes, 5 to 30
    inline static std::atomic<int> s_evidenceBufferCtrlSize = 262142;  // bytes
    inline static std::atomic<int> s_evidenceSuppress = 5;             // seconds of packet time
};
