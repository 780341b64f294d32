#include "logging/log_file.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "logging/log_guards.h"
#include "threads/uncancelled_io.h"

namespace vald {

namespace {

// The length of what snprintf put into a buffer of this size, given its result.
size_t Fitted(int printed, size_t size) {
    return printed < 0 ? 0 : std::min(static_cast<size_t>(printed), size - 1);
}

constexpr unsigned long kFirstYear = 1900;  // that a tm counts from

// Writes a number with at least so many digits, and one character after it. The result is the end.
char* PutNumber(char* out, unsigned long number, int digits, char after) {
    std::array<char, 20> reversed;
    int count = 0;
    for (; number != 0 || count < digits; number /= 10) {
        reversed[static_cast<size_t>(count++)] = static_cast<char>('0' + number % 10);
    }
    while (count > 0) {
        *out++ = reversed[static_cast<size_t>(--count)];
    }
    *out++ = after;
    return out;
}

// "T:140 " with the number of the calling thread, written once for all its lines.
struct ThreadText {
    std::array<char, 24> text;
    size_t length;  // 0: not written yet
};

constinit thread_local ThreadText t_thread{};

char* PutThread(char* out) {
    if (t_thread.length == 0) {
        char* const begin = t_thread.text.data();
        begin[0] = 'T';
        begin[1] = ':';
        t_thread.length = static_cast<size_t>(PutNumber(begin + 2, pthread_self(), 2, ' ') - begin);
    }
    memcpy(out, t_thread.text.data(), t_thread.text.size());
    return out + t_thread.length;
}

}  // namespace

LogFile::~LogFile() {
    Close();
    pthread_mutex_destroy(&m_mutex);
}

void LogFile::Initialize(const std::string& path, int level) {
    SetLevel(level);
    m_path = path;
}

bool LogFile::SetLimits(unsigned maxSize, unsigned maxFiles) {
    if (maxSize == 0 || maxFiles == 0) {
        return false;
    }
    const ErrnoKeeper keeper;
    const FileLogLock lock(m_mutex);
    m_size = 0;
    m_maxSize = maxSize;
    m_maxFiles = maxFiles;
    // The first use of the local time loads the time zone, which allocates. No line must be first.
    (void)BuildPrefix(m_buffer, sizeof m_buffer, nullptr);
    return OpenWithRotation();
}

int LogFile::Write(int level, const char* format, ...) {
    if (!Passes(level)) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    const int result = VWrite(level, format, args);
    va_end(args);
    return result;
}

int LogFile::VWrite(int level, const char* format, va_list args) {
    if (!Passes(level)) {
        return 0;
    }
    const ErrnoKeeper keeper;
    const FileLogLock lock(m_mutex);
    BuildLine(format, args);
    return WriteLine(m_buffer);
}

void LogFile::Close() {
    const ErrnoKeeper keeper;
    const FileLogLock lock(m_mutex);
    CloseFile();
}

void LogFile::Flush() {
    const ErrnoKeeper keeper;
    const FileLogLock lock(m_mutex);
    if (m_fd != -1) {
        fsync(m_fd);
    }
}

size_t LogFile::BuildPrefix(char* out, size_t size, const char* tag) {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        now = {};
    }
    if (m_dateLength == 0 || now.tv_sec != m_dateSecond) {
        BuildDate(now.tv_sec);
    }
    std::array<char, 96> text;
    memcpy(text.data(), m_date.data(), m_date.size());
    char* end = text.data() + m_dateLength;
    end = PutNumber(end, static_cast<unsigned long>(now.tv_usec / 1000), 3, ' ');
    end = PutThread(end);
    size_t length = std::min(static_cast<size_t>(end - text.data()), size - 1);
    memcpy(out, text.data(), length);
    out[length] = '\0';
    if (tag != nullptr) {
        length += Fitted(snprintf(out + length, size - length, "%s\t", tag), size - length);
    }
    return length;
}

// Once for all lines of a second, and by hand: the local time and the formatting functions take as
// long as the rest of a line.
void LogFile::BuildDate(time_t second) {
    tm local{};
    localtime_r(&second, &local);
    m_dateLength = 0;
    char* end = m_date.data();
    end = PutNumber(end, static_cast<unsigned long>(local.tm_year) + kFirstYear, 4, '/');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_mon) + 1, 2, '/');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_mday), 2, ' ');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_hour), 2, ':');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_min), 2, ':');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_sec), 2, '.');
    m_dateSecond = second;
    m_dateLength = static_cast<size_t>(end - m_date.data());
}

// Deliberate: a line that does not fit is cut without a mark. An attentive reader sees it by its
// length, and the parsers of the collecting hosts take the line as it is.
void LogFile::BuildLine(const char* format, va_list args) {
    static constexpr char kFailed[] = ">>>";
    static constexpr size_t kFailedAt = 2040;
    static_assert(kFailedAt + sizeof kFailed <= sizeof m_buffer);

    const size_t prefix = m_timestamps ? BuildPrefix(m_buffer, sizeof m_buffer, nullptr) : 0;
    m_buffer[prefix] = '\0';
    if (vsnprintf(m_buffer + prefix, sizeof m_buffer - prefix, format, args) == -1) {
        // Deliberate: the mark has a fixed place, so it shows only where the text that was
        // formatted before the failure filled the buffer that far.
        memcpy(m_buffer + kFailedAt, kFailed, sizeof kFailed);
    }
}

int LogFile::WriteLine(char* text) {
    if (m_fd == -1 || text == nullptr) {
        return kDropped;
    }
    // The size is tested before the line, so a file exceeds its limit by one line at most.
    // Deliberate: a rotation that fails leaves the file closed for good, since a file that cannot
    // be rotated would otherwise grow without a limit and fill the disk.
    if (m_size > m_maxSize && !OpenWithRotation()) {
        return kRotateFailed;
    }
    // The line feed takes the place of the NUL, so that line and line feed are one write.
    const size_t length = strlen(text);
    text[length] = '\n';
    ssize_t written = 0;
    do {
        written = WriteUncancelled(m_fd, text, length + 1);
    } while (written == -1 && errno == EINTR);  // a signal is no reason to lose a line
    text[length] = '\0';
    if (written <= 0) {
        return 0;
    }
    m_size += static_cast<uint32_t>(written);
    // The line feed does not count.
    return static_cast<int>(std::min(static_cast<size_t>(written), length));
}

bool LogFile::OpenWithRotation() {
    // Some file systems let a signal interrupt these calls. There is time for a mask here.
    const Uninterrupted uninterrupted;
    CloseFile();
    if (!Rotate()) {
        return false;
    }
    m_size = 0;
    m_fd = open(m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    return m_fd != -1;
}

// Moves every file one number up, the oldest out. Deliberate: a gap left by a missing source moves
// along and is not closed, so that a number shows the age of a file.
bool LogFile::Rotate() const {
    for (uint32_t i = m_maxFiles - 1; i >= 1; --i) {
        char source[kNameSize];
        char target[kNameSize];
        if (!NameFile(source, i - 1) || !NameFile(target, i)) {
            return false;
        }
        if (access(source, F_OK) != 0) {
            continue;
        }
        if (access(target, F_OK) == 0 && remove(target) != 0) {
            return false;
        }
        if (rename(source, target) != 0) {
            return false;
        }
    }
    return true;
}

bool LogFile::NameFile(char (&out)[kNameSize], uint32_t index) const {
    const int printed = index == 0 ? snprintf(out, sizeof out, "%s", m_path.c_str())
                                   : snprintf(out, sizeof out, "%s.%03u", m_path.c_str(), index);
    return printed >= 0 && static_cast<size_t>(printed) < sizeof out;
}

void LogFile::CloseFile() {
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
}

}  // namespace vald
