// The files of the engine: PID file, the two configuration files, and the log.

#include "daemon/engine.h"

#include <sys/stat.h>

#include "config/config.h"
#include "daemon/process.h"
#include "logging/log.h"
#include "paths.h"

using vald::Log;

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

bool TarnEngine::ExamineFile(const std::string& path, time_t* modified) {
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

bool TarnEngine::ExamineFiles() {
    if (m_configFile.empty()) {
        Log::Error("No TaRN configuration file specified");
        return false;
    }
    if (!ExamineFile(m_configFile, &m_configMtime)) {
        return false;
    }
    if (m_eventConfigFile.empty()) {
        Log::Error("No snort configuration file specified");
        return false;
    }
    // The times are taken before the files are read, so that an edit between the two is seen as a
    // change by the next StartEngine.
    return ExamineFile(m_eventConfigFile, &m_eventConfigMtime);
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

void TarnEngine::OpenLog() {
    Log* const log = Log::GetInstance();
    log->Open(m_appName.c_str(), Config::s_logFile.c_str(), Config::s_logLevel,
              Config::s_logMaxFileSize, Config::s_logMaxFiles);
    log->Write(Log::kNotice, "%s base address: %p", m_appName.c_str(), m_baseAddress);
    log->Write(Log::kDebug, "Using config file %s, snort config file %s", m_configFile.c_str(),
               m_eventConfigFile.c_str());
    Config::Dump();
}
