#pragma once

// Reaches the parts of vald::Log that only the log itself uses, and puts everything back to what
// it is when the process starts.

#include <cstdarg>
#include <string>

#include "logging/log.h"

class LogPeer : public vald::Log {
  public:
    static void Reset() {
        Destroy();
        SetConsole(nullptr, false, false, false);
        SetLevel(kNotice);
        m_bInitialized = false;
        m_sAppName = "QOR";
    }

    static bool Initialized() { return m_bInitialized; }
    static std::string AppName() { return m_sAppName; }
    static bool Exists() { return m_pLog != nullptr; }

    static void WriteConsoleWithErrno(int level, const char* format, ...)
        __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        VWriteConsole(level, format, args, true);
        va_end(args);
    }
};
