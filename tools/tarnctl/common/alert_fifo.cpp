#include "tarnctl/common/alert_fifo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/signals.h"
#include "tarnctl/common/tarn_process.h"

namespace tarnctl {
namespace {

// How long a wait goes on before the conditions are looked at again, in milliseconds.
constexpr int kRoomPoll = 100;  // poll(2) wakes up for room by itself
constexpr int kEmptyPoll = 1;   // nothing wakes a writer when a pipe becomes empty
constexpr std::chrono::milliseconds kReaderPoll{10};

}  // namespace

AlertFifo::AlertFifo(std::string path, const Limits& limits)
    : m_path(std::move(path)), m_limits(limits) {}

AlertFifo::~AlertFifo() {
    if (m_fd != -1) {
        close(m_fd);
    }
}

FifoResult AlertFifo::Fail(const std::string& reason) {
    m_error = m_path + ": " + reason;
    return FifoResult::kFailed;
}

FifoResult AlertFifo::Open() {
    const auto started = Clock::now();
    const auto deadline = started + m_limits.open;
    bool isTold = false;
    while (true) {
        struct stat status = {};
        int failure = 0;
        if (stat(m_path.c_str(), &status) != 0) {
            failure = errno;
        } else if (!S_ISFIFO(status.st_mode)) {
            return Fail("not a FIFO; name the alert FIFO with --fifo");
        } else {
            m_fd = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (m_fd != -1) {
                return FifoResult::kDone;
            }
            failure = errno;
        }
        if (failure != ENOENT && failure != ENXIO && failure != EINTR) {
            m_error = FailureText(m_path, failure);
            return FifoResult::kFailed;
        }
        if (StopRequested()) {
            return FifoResult::kStopped;
        }
        if (Clock::now() >= deadline) {
            return Fail(
                failure == ENXIO
                    ? "nobody is reading; start tarn, or wait for it with --wait"
                    : "no such FIFO; start tarn, which makes it, or wait for it with --wait");
        }
        std::string reason;
        if (!isTold) {
            reason = (failure == ENXIO ? "nobody reads " : "no FIFO at ") + m_path;
            TellWait(started, reason);
            isTold = reason.empty();
        }
        std::this_thread::sleep_for(kReaderPoll);
    }
}

FifoResult AlertFifo::Send(std::span<const std::byte> record) {
    if (record.size() > PIPE_BUF && !EnsureCapacity(record.size())) {
        return FifoResult::kFailed;
    }
    while (true) {
        if (record.size() > PIPE_BUF) {
            const FifoResult waited = WaitFor(Wait::kEmpty);
            if (waited != FifoResult::kDone) {
                return waited;
            }
        }
        const ssize_t count = write(m_fd, record.data(), record.size());
        if (count == static_cast<ssize_t>(record.size())) {
            return FifoResult::kDone;
        }
        FifoResult waited = FifoResult::kDone;
        if (count != -1) {
            return Fail("the pipe took " + std::to_string(count) + " of " +
                        std::to_string(record.size()) +
                        " bytes of a record; stop whoever else writes into it");
        } else if (errno == EAGAIN) {
            waited = WaitFor(Wait::kRoom);
        } else if (errno == EPIPE) {
            waited = WaitForReader();
        } else if (errno != EINTR) {
            return Fail(std::strerror(errno));
        }
        if (waited != FifoResult::kDone) {
            return waited;
        }
    }
}

FifoResult AlertFifo::Drain() {
    return WaitFor(Wait::kEmpty);
}

FifoResult AlertFifo::WaitFor(Wait what) {
    int unread = Unread();
    auto moved = Clock::now();
    std::string reason = "the reader of " + m_path + " takes nothing";
    while (what == Wait::kRoom || unread > 0) {
        pollfd entry = {};
        entry.fd = m_fd;
        entry.events = what == Wait::kRoom ? POLLOUT : 0;
        const int ready = poll(&entry, 1, what == Wait::kRoom ? kRoomPoll : kEmptyPoll);
        if (what == Wait::kEmpty && Unread() == 0) {
            return FifoResult::kDone;  // a reader that has taken everything may have left since
        }
        if (ready > 0 && (entry.revents & POLLERR) != 0) {
            const FifoResult waited = WaitForReader();
            if (waited != FifoResult::kDone) {
                return waited;
            }
            moved = Clock::now();
        } else if (ready > 0 && (entry.revents & POLLOUT) != 0) {
            return FifoResult::kDone;
        }
        if (StopRequested()) {
            return FifoResult::kStopped;
        }
        const int now = Unread();
        if (now != unread) {
            moved = Clock::now();
            unread = now;
        } else if (Clock::now() - moved <= m_limits.stall) {
            TellWait(moved, reason);
        } else {
            return Fail("the reader takes nothing: " + std::to_string(unread) +
                        " bytes stand unread; see the log of tarn");
        }
    }
    return unread == -1 ? Fail(std::strerror(errno)) : FifoResult::kDone;
}

FifoResult AlertFifo::WaitForReader() {
    const auto started = Clock::now();
    const auto deadline = started + m_limits.reopen;
    std::string reason = "the reader of " + m_path + " is gone";
    while (true) {
        pollfd entry = {};
        entry.fd = m_fd;
        (void)poll(&entry, 1, 0);  // an interrupted poll leaves revents at 0 and is no answer
        if ((entry.revents & POLLERR) == 0) {
            return FifoResult::kDone;
        }
        if (StopRequested()) {
            return FifoResult::kStopped;
        }
        if (Clock::now() >= deadline) {
            return Fail("the reader is gone, with " + std::to_string(std::max(0, Unread())) +
                        " bytes unread; start tarn and play again");
        }
        TellWait(started, reason);
        std::this_thread::sleep_for(kReaderPoll);
    }
}

void AlertFifo::TellWait(Clock::time_point since, std::string& reason) const {
    const std::chrono::milliseconds silent(kSilentWait);
    if (reason.empty() || !m_tell || Clock::now() - since < silent) {
        return;
    }
    m_tell("waiting: " + (IsTarnRunning() ? std::string() : "tarn is not running; ") + reason);
    reason.clear();
}

bool AlertFifo::EnsureCapacity(size_t length) {
    const int capacity = fcntl(m_fd, F_GETPIPE_SZ);
    if (capacity != -1 && length <= static_cast<size_t>(capacity)) {
        return true;
    }
    if (length <= INT_MAX && fcntl(m_fd, F_SETPIPE_SZ, static_cast<int>(length)) != -1) {
        return true;
    }
    const int failure = length <= INT_MAX ? errno : EINVAL;
    (void)Fail("a record of " + std::to_string(length) + " bytes does not fit into the pipe of " +
               std::to_string(capacity) + " bytes, which cannot be enlarged: " +
               std::strerror(failure) + "; run this as root or raise /proc/sys/fs/pipe-max-size");
    return false;
}

int AlertFifo::Unread() const {
    int bytes = 0;
    return ioctl(m_fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

}  // namespace tarnctl
