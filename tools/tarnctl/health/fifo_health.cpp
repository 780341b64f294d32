#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tarnctl/health/parts.h"

namespace tarnctl {
namespace {

constexpr const char* kBorrowed = "the daemon's own descriptor";

// A copy of another process's descriptor. The FIFO is not opened by its name, since that would make
// this process a reader of it, which Snort and the daemon would notice.
class BorrowedDescriptor {
  public:
    BorrowedDescriptor(int process, int descriptor) {
        // The C library's header for these two has no C linkage for C++ on Debian 12.
        const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
        if (handle == -1) {
            m_error = errno;
            return;
        }
        m_fd = static_cast<int>(syscall(SYS_pidfd_getfd, handle, descriptor, 0));
        m_error = m_fd == -1 ? errno : 0;
        close(handle);
    }
    ~BorrowedDescriptor() {
        if (m_fd != -1) {
            close(m_fd);
        }
    }
    BorrowedDescriptor(const BorrowedDescriptor&) = delete;
    BorrowedDescriptor& operator=(const BorrowedDescriptor&) = delete;

    [[nodiscard]] int Descriptor() const { return m_fd; }
    [[nodiscard]] int Error() const { return m_error; }

  private:
    int m_fd = -1;  // owned
    int m_error = 0;
};

Reading<Holders> HoldersReading(const ProcessTable& processes, const struct stat& file,
                                ProcessTable::Access access, const std::string& source) {
    Holders holders = processes.HoldersOf(file, access);
    if (holders.empty() && !processes.IsComplete()) {
        return Unknown<Holders>(source, HoldersHidden());
    }
    return Known(std::move(holders), source);
}

void LookAtFill(FifoHealth& health, const struct stat& status, int daemon) {
    const auto fail = [&health](const std::string& reason) {
        health.unreadBytes = Unknown<uint64_t>(kBorrowed, reason);
        health.capacityBytes = Unknown<uint64_t>(kBorrowed, reason);
    };
    if (!health.readers.IsKnown()) {
        return fail(health.readers.reason);
    }
    for (const Holder& reader : *health.readers.value) {
        if (reader.process != daemon) {
            continue;
        }
        const BorrowedDescriptor borrowed(reader.process, reader.descriptor);
        struct stat found = {};
        if (borrowed.Descriptor() == -1) {
            return fail(std::string("the daemon's descriptor cannot be borrowed: ") +
                        std::strerror(borrowed.Error()));
        }
        // The daemon may have opened something else under this number meanwhile.
        int unread = 0;
        if (fstat(borrowed.Descriptor(), &found) != 0 || found.st_ino != status.st_ino ||
            ioctl(borrowed.Descriptor(), FIONREAD, &unread) != 0) {
            return fail("the daemon is opening the FIFO again");
        }
        health.unreadBytes = Known(static_cast<uint64_t>(unread), kBorrowed);
        const int capacity = fcntl(borrowed.Descriptor(), F_GETPIPE_SZ);
        health.capacityBytes = capacity < 0 ? Unknown<uint64_t>(kBorrowed, std::strerror(errno))
                                            : Known(static_cast<uint64_t>(capacity), kBorrowed);
        return;
    }
    fail("the daemon does not have it open");
}

}  // namespace

FifoHealth LookAtFifo(const std::string& path, const ProcessTable& processes, int daemon) {
    FifoHealth health;
    health.path = path;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        const int error = errno;
        const bool isOther = status.st_ino != 0;
        const std::string reason = isOther ? path + " is no FIFO" : LookFailure(path, error);
        health.isThere = isOther || error == ENOENT || error == ENOTDIR
                             ? Known(false, path)
                             : Unknown<bool>(path, reason);
        health.readers = Unknown<Holders>(path, reason);
        health.writers = Unknown<Holders>(path, reason);
        health.unreadBytes = Unknown<uint64_t>(path, reason);
        health.capacityBytes = Unknown<uint64_t>(path, reason);
        return health;
    }
    health.isThere = Known(true, path);
    const std::string source = processes.DescriptorsSource();
    health.readers = HoldersReading(processes, status, ProcessTable::Access::kRead, source);
    health.writers = HoldersReading(processes, status, ProcessTable::Access::kWrite, source);
    LookAtFill(health, status, daemon);
    return health;
}

}  // namespace tarnctl
