#include "logging/sys_log.h"

#include <syslog.h>

#include <cstdio>

#include "logging/log_guards.h"
#include "logging/log_level.h"

using log_level::kDebug;
using log_level::kError;
using log_level::kInfo;
using log_level::kNotice;
using log_level::kWarning;

SysLog* SysLog::m_logger = nullptr;
std::atomic<bool> SysLog::m_syslogOpen{false};

SysLog* SysLog::GetInstance() {
    if (m_logger == nullptr) {
        m_logger = new SysLog;
    }
    return m_logger;
}

void SysLog::Release() {
    delete m_logger;
    m_logger = nullptr;
}

SysLog::SysLog() {
    Open();
}

SysLog::~SysLog() {
    Close();
    pthread_mutex_destroy(&m_mutex);
}

// Deliberate: level 5 never passes this sink, at any configured level. The system log is shared
// with the whole host, and debug lines would drown it; so the debug messages of this class itself
// never appear either.
void SysLog::SetLevel(int level) {
    LogTrace::SetLevel(level >= kDebug ? kNotice : level);
}

void SysLog::Initialize(const std::string& appName, int level) {
    Debug("SysLog::Initialize()-Initializing Log object.");
    SetAppName(appName);
    SetLevel(level);
}

std::string SysLog::GetAppName() {
    std::string name;
    {
        const SysLogLock lock(m_mutex);
        name = m_appName;
    }
    Debug("SysLog::GetAppName() - Returning application name %s", name.c_str());
    return name;
}

void SysLog::SetAppName(const std::string& appName) {
    Debug("SysLog::SetAppName() - Setting application name to %s", appName.c_str());
    const SysLogLock lock(m_mutex);
    const bool wasOpen = m_syslogOpen.load(std::memory_order_relaxed);
    // Closing first: an open system log points at the characters of the former name.
    if (wasOpen) {
        CloseLocked();
    }
    m_appName = appName;
    if (wasOpen) {
        OpenLocked();
    }
}

void SysLog::Open() {
    const SysLogLock lock(m_mutex);
    OpenLocked();
}

void SysLog::Close() {
    const SysLogLock lock(m_mutex);
    CloseLocked();
}

void SysLog::OpenLocked() {
    const ErrnoKeeper keeper;
    openlog(m_appName.c_str(), LOG_PID | LOG_NDELAY, LOG_LOCAL0);
    m_syslogOpen.store(true, std::memory_order_relaxed);
}

void SysLog::CloseLocked() {
    const ErrnoKeeper keeper;
    closelog();
    m_syslogOpen.store(false, std::memory_order_relaxed);
}

void SysLog::Write(int level, const char* format, ...) {
    if (!Passes(level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(level, format, args);
    va_end(args);
}

void SysLog::VWrite(int level, const char* format, va_list args) {
    if (!Passes(level) || !m_syslogOpen.load(std::memory_order_relaxed)) {
        return;
    }
    const ErrnoKeeper keeper;
    char text[512] = "";
    vsnprintf(text, sizeof text, format, args);
    const SysLogLock lock(m_mutex);
    // A fault inside syslog() left its own lock held, and a second call would wait forever.
    if (!lock.Owns()) {
        return;
    }
    // Deliberate: the level is used as the priority, so an error is an alert here and an info
    // message an error. The rules of the collecting hosts are written for these numbers.
    syslog(level, "%s", text);
}

void SysLog::Debug(const char* format, ...) {
    if (!Passes(kDebug)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(kDebug, format, args);
    va_end(args);
}

void SysLog::Info(const char* format, ...) {
    if (!Passes(kInfo)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(kInfo, format, args);
    va_end(args);
}

void SysLog::Notice(const char* format, ...) {
    if (!Passes(kNotice)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(kNotice, format, args);
    va_end(args);
}

void SysLog::Warning(const char* format, ...) {
    if (!Passes(kWarning)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(kWarning, format, args);
    va_end(args);
}

void SysLog::Error(const char* format, ...) {
    if (!Passes(kError)) {
        return;
    }
    va_list args;
    va_start(args, format);
    VWrite(kError, format, args);
    va_end(args);
}
