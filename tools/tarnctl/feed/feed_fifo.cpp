#include "tarnctl/feed/feed_fifo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {

FeedFifo::FeedFifo(std::string path) : m_path(std::move(path)) {}

FeedFifo::~FeedFifo() {
    Close();
}

void FeedFifo::Close() {
    for (int* const fd : {&m_fd, &m_inotify}) {
        if (*fd != -1) {
            close(std::exchange(*fd, -1));
        }
    }
}

FeedFifo::Result FeedFifo::Fail(Result result, const std::string& reason) {
    m_error = reason;
    return result;
}

FeedFifo::Result FeedFifo::Open() {
    struct stat status = {};
    if (stat(m_path.c_str(), &status) == 0 && !S_ISFIFO(status.st_mode)) {
        return Fail(Result::kFailed, m_path + ": not a FIFO; name the alert FIFO with --fifo");
    }
    m_fd = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd == -1) {
        const int error = errno;
        const bool isMissing = error == ENOENT || error == ENXIO || error == EINTR;
        return Fail(isMissing ? Result::kNoReader : Result::kFailed, FailureText(m_path, error));
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        Close();
        return Fail(Result::kFailed, m_path + ": another tarnctl feeds it; stop that first");
    }
    m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify == -1 || inotify_add_watch(m_inotify, m_path.c_str(), IN_CLOSE_NOWRITE) == -1) {
        const int error = errno;
        Close();
        return Fail(Result::kFailed, FailureText(m_path + ": cannot be watched", error));
    }
    return Result::kDone;
}

bool FeedFifo::EnsureCapacity(size_t length) {
    const int capacity = fcntl(m_fd, F_GETPIPE_SZ);
    if (capacity != -1 && length <= static_cast<size_t>(capacity)) {
        return true;
    }
    return length <= INT_MAX && fcntl(m_fd, F_SETPIPE_SZ, static_cast<int>(length)) != -1;
}

FeedFifo::Result FeedFifo::Send(std::span<const std::byte> record) {
    // Only an empty pipe is sure to take a long record whole.
    if (record.size() > PIPE_BUF) {
        if (!EnsureCapacity(record.size())) {
            return Fail(Result::kTooLong,
                        "a record of " + std::to_string(record.size()) +
                            " bytes does not fit into the pipe; raise /proc/sys/fs/pipe-max-size");
        }
        if (Unread() != 0) {
            return HasReader() ? Result::kNoRoom : Result::kNoReader;
        }
    }
    const ssize_t count = write(m_fd, record.data(), record.size());
    if (count == static_cast<ssize_t>(record.size())) {
        return Result::kDone;
    }
    if (count != -1) {
        return Fail(Result::kFailed, m_path + ": took " + std::to_string(count) + " of " +
                                         std::to_string(record.size()) +
                                         " bytes; stop whoever else writes into it");
    }
    switch (errno) {
        case EAGAIN:
        case EINTR:
            return Result::kNoRoom;
        case EPIPE:
            return Result::kNoReader;
        default:
            return Fail(Result::kFailed, FailureText(m_path, errno));
    }
}

int FeedFifo::Unread() const {
    int bytes = 0;
    return m_fd != -1 && ioctl(m_fd, FIONREAD, &bytes) == 0 ? bytes : 0;
}

bool FeedFifo::HasReader() const {
    pollfd entry = {.fd = m_fd, .events = 0, .revents = 0};
    (void)poll(&entry, 1, 0);
    return m_fd != -1 && (entry.revents & POLLERR) == 0;
}

void FeedFifo::WaitForRoom(int milliseconds) const {
    pollfd entry = {.fd = m_fd, .events = POLLOUT, .revents = 0};
    (void)poll(&entry, 1, milliseconds);
}

uint32_t FeedFifo::TakeReaderCloses() {
    alignas(inotify_event) std::array<char, 4096> events;
    uint32_t closes = 0;
    ssize_t length = 0;
    while (m_inotify != -1 && (length = read(m_inotify, events.data(), events.size())) > 0) {
        for (ssize_t at = 0; at < length;) {
            inotify_event event;
            std::memcpy(&event, events.data() + at, sizeof event);
            closes += (event.mask & IN_CLOSE_NOWRITE) != 0 ? 1 : 0;
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    return closes;
}

}  // namespace tarnctl
