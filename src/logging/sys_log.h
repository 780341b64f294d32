#pragma once

// The system log as a sink, under the daemon's name, with LOG_PID | LOG_NDELAY and LOG_LOCAL0.
//
// The level of a message is the priority it gets: 1 is LOG_ALERT, 2 LOG_CRIT, 3 LOG_ERR. A line
// is cut at 511 characters. vald::Log takes the singleton when it opens and releases it when it
// closes.
//
// Threads: GetInstance and Release belong to the main thread while no other thread runs; all else
// may be called by any thread. m_mutex covers the name and the calls of the system log.

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <string>

#include "logging/log_trace.h"

class SysLog : public LogTrace {
  public:
    // The singleton, made and opened at the first call. Never null.
    static SysLog* GetInstance();
    // Deletes the singleton, which closes the system log.
    static void Release();

    ~SysLog() override;

    // Levels of 5 and more are stored as 4, so that debug messages never reach the system log.
    void SetLevel(int level) override;

    void Initialize(const std::string& appName, int level);

    std::string GetAppName();
    // A name that changes while the system log is open takes effect at once.
    void SetAppName(const std::string& appName);

    void Open();
    void Close();

    // Sends one line, unless the level does not pass this sink or the system log is closed.
    void Write(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void VWrite(int level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

    // The level functions. They ask this sink's level and not the log's.
    void Debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Notice(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Warning(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));

  private:
    SysLog();
    void OpenLocked();
    void CloseLocked();

    static SysLog* m_logger;  // owned
    static std::atomic<bool> m_syslogOpen;

    std::string m_appName;  // openlog keeps a pointer to its characters
    pthread_mutex_t m_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
};
