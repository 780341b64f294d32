#include "logging/log_file.h"

#include <fcntl.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "logging/log_guards.h"

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
    const LogLock lock(m_mutex);
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
    const LogLock lock(m_mutex);
    BuildLine(format, args);
    return WriteLine(m_buffer);
}

void LogFile::Close() {
    const ErrnoKeeper keeper;
    const LogLock lock(m_mutex);
    CloseFile();
}

void LogFile::Flush() {
    const ErrnoKeeper keeper;
    const LogLock lock(m_mutex);
    if (m_fd != -1) {
        fsync(m_fd);
    }
}

size_t LogFile::BuildPrefix(char* out, size_t size, const char* tag) {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        now = {};
    }
    tm local{};
    localtime_r(&now.tv_sec, &local);
    // Written by hand: the formatting functions take as long as the rest of a line.
    std::array<char, 80> text;
    char* end = text.data();
    end = PutNumber(end, static_cast<unsigned long>(local.tm_year) + kFirstYear, 4, '/');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_mon) + 1, 2, '/');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_mday), 2, ' ');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_hour), 2, ':');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_min), 2, ':');
    end = PutNumber(end, static_cast<unsigned long>(local.tm_sec), 2, '.');
    end = PutNumber(end, static_cast<unsigned long>(now.tv_usec / 1000), 3, ' ');
    *end++ = 'T';
    *end++ = ':';
    end = PutNumber(end, pthread_self(), 2, ' ');
    size_t length = std::min(static_cast<size_t>(end - text.data()), size - 1);
    memcpy(out, text.data(), length);
    out[length] = '\0';
    if (tag != nullptr) {
        length += Fitted(snprintf(out + length, size - length, "%s\t", tag), size - length);
    }
    return length;
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

int LogFile::WriteLine(const char* text) {
    if (m_fd == -1 || text == nullptr) {
        return kDropped;
    }
    // The size is tested before the line, so a file exceeds its limit by one line at most.
    // Deliberate: a rotation that fails leaves the file closed for good, since a file that cannot
    // be rotated would otherwise grow without a limit and fill the disk.
    if (m_size > m_maxSize && !OpenWithRotation()) {
        return kRotateFailed;
    }
    static char lineFeed[] = "\n";
    const size_t length = strlen(text);
    const std::array<iovec, 2> pieces{iovec{const_cast<char*>(text), length}, iovec{lineFeed, 1}};
    const ssize_t written = writev(m_fd, pieces.data(), pieces.size());
    if (written <= 0) {
        return 0;
    }
    m_size += static_cast<uint32_t>(written);
    // The line feed does not count.
    return static_cast<int>(std::min(static_cast<size_t>(written), length));
}

bool LogFile::OpenWithRotation() {
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
