#pragma once

// The rotating log file. Each message is one line:
//
//   2026/11/12 14:12:01.123 T:140 Configuration reloaded.
//
// with local time and the thread number. The level is not in the line. A file above its limit
// becomes ".001", that one ".002", and so on; every opening starts a new file. Owned by vald::Log.
//
// No line allocates memory, be it the one that rotates the file: a signal handler writes lines,
// too. A line is one system call.
//
// Threads: any thread may write. m_mutex covers the line buffer, the date, the rotation and the
// writes, so that lines never interleave. Initialize belongs to the thread that opens the log.

#include <pthread.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "logging/log_trace.h"

namespace vald {

class LogFile : public LogTrace {
  public:
    static constexpr int kDropped = -2;       // no file is open
    static constexpr int kRotateFailed = -1;  // the line is lost, and the file stays closed

    LogFile() = default;
    ~LogFile() override;

    // Sets level and path; nothing is opened.
    virtual void Initialize(const std::string& path, int level);

    // Stores the limits and opens the file, rotating what was there. maxSize in bytes, maxFiles
    // with the current file. False if either is 0 or the file cannot be opened.
    [[nodiscard]] bool SetLimits(unsigned maxSize, unsigned maxFiles);

    // Writes one line. The result is the bytes of text written, without the line feed; 0 if the
    // level does not pass or the write failed; kDropped or kRotateFailed.
    int Write(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int VWrite(int level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

    // Closes the file; later lines are dropped.
    void Close();
    // Brings what was written to the disk.
    void Flush();

  protected:
    // Builds time, milliseconds and thread number, then the tag and a tab where one is given.
    // The result is the length. Every line of the daemon goes without a tag.
    size_t BuildPrefix(char* out, size_t size, const char* tag);

  private:
    // Bytes that any path has room in which the system takes, with its NUL.
    static constexpr size_t kNameSize = PATH_MAX;

    [[nodiscard]] bool OpenWithRotation();
    [[nodiscard]] bool Rotate() const;
    // Writes the name of the file with this number to `out`; 0 is the current file. False when it
    // does not fit.
    [[nodiscard]] bool NameFile(char (&out)[kNameSize], uint32_t index) const;
    void BuildLine(const char* format, va_list args) __attribute__((format(printf, 2, 0)));
    int WriteLine(char* text);
    void CloseFile();
    void BuildDate(time_t second);

    char m_buffer[2048] = {};  // one line is built here
    bool m_timestamps = true;  // nothing clears it
    uint32_t m_size = 0;       // bytes written to the current file
    int m_fd = -1;             // -1: closed
    uint32_t m_maxSize = 2000000;
    uint32_t m_maxFiles = 10;
    std::string m_path;
    std::array<char, 64> m_date = {};  // local date and time of m_dateSecond, as a line has them
    size_t m_dateLength = 0;           // 0: there is none yet
    time_t m_dateSecond = 0;
    pthread_mutex_t m_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
};

}  // namespace vald
