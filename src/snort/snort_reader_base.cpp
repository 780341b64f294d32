#include "snort/snort_reader_base.h"

#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "logging/log.h"
#include "threads/cancellation.h"

namespace {

using vald::Log;

constexpr mode_t kFifoMode = 0666;  // the umask applies

// Waits like select, and returns the errno of a failure as a negative number. A descriptor too
// large for the sets of select is such a failure. The error thread may be cancelled here.
int SelectReadable(int fd, long timeoutSeconds) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        return -EBADF;
    }
    fd_set readSet;
    fd_set exceptionSet;
    FD_ZERO(&readSet);
    FD_ZERO(&exceptionSet);
    FD_SET(fd, &readSet);
    FD_SET(fd, &exceptionSet);
    timeval timeout = {.tv_sec = timeoutSeconds, .tv_usec = 0};
    const CancellationOn window;
    const int ready = select(fd + 1, &readSet, nullptr, &exceptionSet, &timeout);
    return ready == -1 ? -errno : ready;
}

}  // namespace

SnortReaderBase::SnortReaderBase(const char* path) : m_path(path) {}

SnortReaderBase::~SnortReaderBase() {
    if (m_fd != -1) {
        Close();
    }
}

bool SnortReaderBase::CreateFifo() {
    Log::GetInstance()->Write(Log::kDebug, "Creating FIFO: %s", m_path.c_str());
    struct stat status;
    if (stat(m_path.c_str(), &status) != 0) {
        if (mkfifo(m_path.c_str(), kFifoMode) != 0) {
            const int error = errno;
            Log::GetInstance()->Write(Log::kError, "Cannot create FIFO: %s, reason: %s",
                                      m_path.c_str(), strerror(error));
            return false;
        }
        return true;
    }
    if (!S_ISFIFO(status.st_mode)) {
        Log::GetInstance()->Write(
            Log::kError,
            "Fatal error: %s is already created by SNORT, reader won't work. Please remove it manually",
            m_path.c_str());
        return false;
    }
    Log::GetInstance()->Write(Log::kDebug, "FIFO: %s is already existed", m_path.c_str());
    return true;
}

int SnortReaderBase::WaitReadable(long timeoutSeconds) {
    const int ready = SelectReadable(m_fd, timeoutSeconds);
    if (ready >= 0) {
        return ready;
    }
    const int error = -ready;
    // Deliberate: a signal costs the FIFO its descriptor, as a real failure does. The next read
    // attempt opens it again, so that there is one way of recovering and not two.
    if (error != EINTR) {
        Log::GetInstance()->Write(Log::kError, "Select FDs error, reason: %s", strerror(error));
    } else if (Log::Passes(Log::kDebug)) {
        Log::GetInstance()->Write(Log::kDebug, "Select interrupted by signal, reason: %s",
                                  strerror(error));
    }
    Close();
    return -1;
}

void SnortReaderBase::Close() {
    // A thread cancelled inside close could not know whether the descriptor is closed already.
    const CancellationOff off;
    close(m_fd);
    m_fd = -1;
}
