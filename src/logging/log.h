#pragma once

// The front of the log: every message of the daemon goes through here.
//
// Once the log is open a message goes to the rotating file and, at level 3 or lower, to the system
// log. Before that the static level functions take the console path (standard error and the system
// log). Deliberate: a Write is then lost, so that the caller chooses which start-up messages must
// be seen. The singleton lives until the process ends.
//
// A message passes when its level is at most the configured one. Deliberate: notice is below
// info, so that the default level 3 shows what an operator acts on and hides the rest:
//
//   1 error   2 warning   3 info   4 notice   5 debug
//
// Every operation leaves errno as it found it, and none is a cancellation point. Once the log is
// open, no message allocates memory: a signal handler may log while the thread that it interrupted
// is inside the allocator.
//
// Threads: the first GetInstance, Destroy, Open, Reopen and Close belong to the main thread while
// no other thread runs. All else may be called by any thread, and all but GetInstance by the
// daemon's signal handlers.

#include <atomic>
#include <cstdarg>

#include "logging/log_file.h"
#include "logging/log_level.h"

class SysLog;

// The gate of a level is inlined into each call, so that a message that does not pass costs the
// comparison and not even the making of its arguments. Only GCC can pass the arguments of an
// inlined function on; with other compilers the gate is at the beginning of an ordinary function.
// TARN_PASS_ON calls FUNCTION(..., format, arguments), or VFUNCTION with them as a list.
#ifdef __clang__
#define TARN_INLINE_VARIADIC
#define TARN_PASS_ON(FUNCTION, format, ...)     \
    do {                                        \
        va_list args;                           \
        va_start(args, format);                 \
        V##FUNCTION(__VA_ARGS__, format, args); \
        va_end(args);                           \
    } while (false)
#else
#define TARN_INLINE_VARIADIC [[gnu::always_inline]]
#define TARN_PASS_ON(FUNCTION, format, ...) FUNCTION(__VA_ARGS__, format, __builtin_va_arg_pack())
#endif

namespace vald {

class Log {
  public:
    static constexpr int kError = log_level::kError;
    static constexpr int kWarning = log_level::kWarning;
    static constexpr int kInfo = log_level::kInfo;
    static constexpr int kNotice = log_level::kNotice;
    static constexpr int kDebug = log_level::kDebug;

    // Takes the message as format and arguments; the list is the callee's to consume.
    using ConsoleCallback = void (*)(int level, const char* format, va_list args);

    // The level functions. Critical and Fatal log at level 1, like Error; none ends the process.
    TARN_INLINE_VARIADIC static void Debug(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Info(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Notice(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Warning(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Error(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Critical(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
    TARN_INLINE_VARIADIC static void Fatal(const char* format, ...)
        __attribute__((format(printf, 1, 2)));

    // The console path alone, whether the log is open or not. Levels above 4 are dropped.
    static void WriteConsole(int level, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    // Whether a message of this level would pass: one comparison. For calls whose arguments cost.
    static bool Passes(int level) { return level <= m_iLogLevel.load(std::memory_order_relaxed); }

    // Sets the level of the log and of both sinks. 0 lets nothing pass.
    static void SetLevel(int level);
    static int GetLevel() { return m_iLogLevel.load(std::memory_order_relaxed); }

    // Installs a callback and chooses the levels 1, 2 and 3 for it; a null one clears everything.
    static void SetConsole(ConsoleCallback callback, bool errors, bool warnings, bool infos);

    // The singleton, made at the first call. Null only when that call finds no memory for it: the
    // engine makes the first call and then refuses the start.
    static Log* GetInstance() { return m_pLog != nullptr ? m_pLog : Create(); }
    // Deletes the singleton; the static functions take the console path again.
    static void Destroy();

    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    virtual ~Log();

    // Logs a message at a level; the usual call once the log is open.
    TARN_INLINE_VARIADIC void Write(int level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    void VWrite(int level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

    // Sets the level, rotates and opens the file, and opens the system log under appName, which is
    // borrowed for the life of the process. maxFileSize in bytes, maxFiles with the current one.
    // A file that cannot be opened is reported on the console path; lines are then dropped.
    void Open(const char* appName, const char* file, int level, int maxFileSize, int maxFiles);
    // Closes the log and opens it again.
    void Reopen(const char* appName, const char* file, int level, int maxFileSize, int maxFiles);
    // Gives the system log back and closes the file.
    void Close();

  protected:
    Log() = default;

    // Formats once and sends the text to the system log, at levels up to 4, and to standard error.
    // appendErrno adds the text of errno.
    static void VWriteConsole(int level, const char* format, va_list args, bool appendErrno)
        __attribute__((format(printf, 2, 0)));

    static Log* m_pLog;                       // owned
    static std::atomic<bool> m_bInitialized;  // Open has finished
    static std::atomic<int> m_iLogLevel;
    static const char* m_sAppName;  // borrowed; Deliberate: stored, not read
    static std::atomic<ConsoleCallback> m_pfnVLogToConsole;
    static std::atomic<bool> m_sendErrorsToConsole;
    static std::atomic<bool> m_sendWarningsToConsole;
    static std::atomic<bool> m_sendInfosToConsole;

  private:
    static Log* Create();
    // What a static level function does once the gate has passed. A null flag: no callback on the
    // console path.
    static void WriteStatic(int level, const std::atomic<bool>* toCallback, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void VWriteStatic(int level, const std::atomic<bool>* toCallback, const char* format,
                             va_list args) __attribute__((format(printf, 3, 0)));
    // What Write and VWrite do once the gate has passed.
    void WritePassed(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void VWritePassed(int level, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));
    static void VCallBack(const std::atomic<bool>* chosen, int level, const char* format,
                          va_list args) __attribute__((format(printf, 3, 0)));

    SysLog* m_syslog = nullptr;  // the singleton's, given back by Close
    LogFile m_file;
};

// The arguments are checked where these are called, and not once more here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Deliberate: on the console path errors, warnings and notices go to the callback and infos do not,
// nor does Critical. Once the log is open the callback takes levels 1 to 3 from every function.

inline void Log::Debug(const char* format, ...) {
    if (Passes(kDebug)) {
        TARN_PASS_ON(WriteStatic, format, kDebug, nullptr);
    }
}

inline void Log::Info(const char* format, ...) {
    if (Passes(kInfo)) {
        TARN_PASS_ON(WriteStatic, format, kInfo, nullptr);
    }
}

inline void Log::Notice(const char* format, ...) {
    if (Passes(kNotice)) {
        TARN_PASS_ON(WriteStatic, format, kNotice, &m_sendInfosToConsole);
    }
}

inline void Log::Warning(const char* format, ...) {
    if (Passes(kWarning)) {
        TARN_PASS_ON(WriteStatic, format, kWarning, &m_sendWarningsToConsole);
    }
}

inline void Log::Error(const char* format, ...) {
    if (Passes(kError)) {
        TARN_PASS_ON(WriteStatic, format, kError, &m_sendErrorsToConsole);
    }
}

inline void Log::Critical(const char* format, ...) {
    if (Passes(kError)) {
        TARN_PASS_ON(WriteStatic, format, kError, nullptr);
    }
}

inline void Log::Fatal(const char* format, ...) {
    if (Passes(kError)) {
        TARN_PASS_ON(WriteStatic, format, kError, nullptr);
    }
}

inline void Log::Write(int level, const char* format, ...) {
    if (Passes(level)) {
        TARN_PASS_ON(WritePassed, format, level);
    }
}

#pragma GCC diagnostic pop

}  // namespace vald

#undef TARN_INLINE_VARIADIC
#undef TARN_PASS_ON
