#include "logging/log.h"

#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "logging/log_guards.h"
#include "logging/sys_log.h"

namespace vald {

namespace {

// The highest level that is sent to the system log once the log is open, and on the console path.
constexpr int kHighestToSyslog = Log::kInfo;
constexpr int kHighestToConsoleSyslog = Log::kNotice;

// Deliberate: before the log is open an error has the priority of its name, unlike in SysLog,
// where the level is the priority. Start-up trouble is to be found by its ordinary priority.
int ConsolePriority(int level) {
    switch (level) {
        case Log::kError:
            return LOG_ERR;
        case Log::kWarning:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

}  // namespace

Log* Log::m_pLog = nullptr;
std::atomic<bool> Log::m_bInitialized{false};
std::atomic<int> Log::m_iLogLevel{kNotice};
const char* Log::m_sAppName = "QOR";
std::atomic<Log::ConsoleCallback> Log::m_pfnVLogToConsole{nullptr};
std::atomic<bool> Log::m_sendErrorsToConsole{false};
std::atomic<bool> Log::m_sendWarningsToConsole{false};
std::atomic<bool> Log::m_sendInfosToConsole{false};

void Log::WriteConsole(int level, const char* format, ...) {
    if (!Passes(level) || level > kHighestToConsoleSyslog) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWriteConsole(level, format, args, false);
    va_end(args);
}

void Log::WriteStatic(int level, const std::atomic<bool>* toCallback, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VWriteStatic(level, toCallback, format, args);
    va_end(args);
}

void Log::VWriteStatic(int level, const std::atomic<bool>* toCallback, const char* format,
                       va_list args) {
    if (m_pLog != nullptr && m_bInitialized.load(std::memory_order_acquire)) {
        m_pLog->VWritePassed(level, format, args);
        return;
    }
    va_list forConsole;
    va_copy(forConsole, args);
    VWriteConsole(level, format, forConsole, false);
    va_end(forConsole);
    VCallBack(toCallback, level, format, args);
}

void Log::VCallBack(const std::atomic<bool>* chosen, int level, const char* format, va_list args) {
    const ConsoleCallback callback = m_pfnVLogToConsole.load(std::memory_order_acquire);
    if (callback == nullptr || chosen == nullptr || !chosen->load(std::memory_order_relaxed)) {
        return;
    }
    const ErrnoKeeper keeper;
    callback(level, format, args);
}

void Log::VWriteConsole(int level, const char* format, va_list args, bool appendErrno) {
    const ErrnoKeeper keeper;
    char text[8192] = "";
    vsnprintf(text, sizeof text, format, args);
    if (appendErrno) {
        char reason[128];
        const size_t length = strlen(text);
        snprintf(text + length, sizeof text - length, ": %s",
                 strerror_r(keeper.Kept(), reason, sizeof reason));
    }

    const Uninterrupted uninterrupted;
    if (level <= kHighestToConsoleSyslog) {
        if (m_pLog != nullptr && m_pLog->m_syslog != nullptr) {
            m_pLog->m_syslog->Write(level, "%s", text);
        } else {
            syslog(ConsolePriority(level), "%s", text);
        }
    }
    fprintf(stderr, "%s%s\n", log_level::WordsOf(level).console, text);
}

void Log::SetLevel(int level) {
    m_iLogLevel.store(level, std::memory_order_relaxed);
    if (m_pLog == nullptr) {
        return;
    }
    if (m_pLog->m_syslog != nullptr) {
        m_pLog->m_syslog->SetLevel(level);
    }
    m_pLog->m_file.SetLevel(level);
}

void Log::SetConsole(ConsoleCallback callback, bool errors, bool warnings, bool infos) {
    const bool given = callback != nullptr;
    m_sendErrorsToConsole.store(given && errors, std::memory_order_relaxed);
    m_sendWarningsToConsole.store(given && warnings, std::memory_order_relaxed);
    m_sendInfosToConsole.store(given && infos, std::memory_order_relaxed);
    m_pfnVLogToConsole.store(callback, std::memory_order_release);
}

Log* Log::Create() {
    m_pLog = new (std::nothrow) Log;
    return m_pLog;
}

void Log::Destroy() {
    delete m_pLog;
    m_pLog = nullptr;
}

Log::~Log() {
    Close();
}

void Log::WritePassed(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VWritePassed(level, format, args);
    va_end(args);
}

void Log::VWrite(int level, const char* format, va_list args) {
    if (Passes(level)) {
        VWritePassed(level, format, args);
    }
}

void Log::VWritePassed(int level, const char* format, va_list args) {
    va_list copy;
    if (m_syslog != nullptr && level <= kHighestToSyslog) {
        va_copy(copy, args);
        m_syslog->VWrite(level, format, copy);
        va_end(copy);
    }
    const std::atomic<bool>* chosen = nullptr;
    if (level == kError) {
        chosen = &m_sendErrorsToConsole;
    } else if (level == kWarning) {
        chosen = &m_sendWarningsToConsole;
    } else if (level == kInfo) {
        chosen = &m_sendInfosToConsole;
    }
    va_copy(copy, args);
    VCallBack(chosen, level, format, copy);
    va_end(copy);
    m_file.VWrite(level, format, args);
}

void Log::Open(const char* appName, const char* file, int level, int maxFileSize, int maxFiles) {
    SetLevel(level);
    if (appName != nullptr) {
        if (*appName != '\0') {
            m_sAppName = appName;
        }
        m_file.Initialize(file != nullptr ? file : "", level);
        if (!m_file.SetLimits(static_cast<unsigned>(maxFileSize),
                              static_cast<unsigned>(maxFiles))) {
            // Deliberate: the message names the application and not the file, and operators search
            // for it in this form. It takes the console path, since the log is not open yet.
            Warning("Unable to initialize log file: %s", appName);
        }
    }
    m_syslog = SysLog::GetInstance();
    m_syslog->Initialize(appName != nullptr ? appName : "", level);
    m_bInitialized.store(true, std::memory_order_release);
}

void Log::Reopen(const char* appName, const char* file, int level, int maxFileSize, int maxFiles) {
    Close();
    m_bInitialized.store(false, std::memory_order_release);
    Open(appName, file, level, maxFileSize, maxFiles);
}

void Log::Close() {
    if (m_syslog != nullptr) {
        SysLog::Release();
        m_syslog = nullptr;
    }
    m_file.Close();
}

}  // namespace vald
