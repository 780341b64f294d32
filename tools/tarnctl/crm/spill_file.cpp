#include "tarnctl/crm/spill_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr std::string_view kMagic = "tarnspl1";
constexpr size_t kReadBytes = 1U << 17;  // as much is read at once, and more for a longer line

uint64_t LinesOf(std::string_view text) {
    return static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

// A pread or pwrite of all bytes. False with errno.
template <typename Call, typename Pointer>
bool Whole(Call call, int fd, Pointer bytes, size_t size, uint64_t offset) {
    while (size > 0) {
        const ssize_t count = call(fd, bytes, size, static_cast<off_t>(offset));
        if (count > 0) {
            bytes += count;
            size -= static_cast<size_t>(count);
            offset += static_cast<uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            errno = count == 0 ? EIO : errno;
            return false;
        }
    }
    return true;
}

}  // namespace

SpillFile::SpillFile(std::string path, uint64_t limit)
    : m_path(std::move(path)), m_wantedLimit(limit) {
    static_assert(std::has_unique_object_representations_v<Head>);
    std::memcpy(m_head.magic, kMagic.data(), sizeof m_head.magic);
    m_head.limit = limit;
}

SpillFile::~SpillFile() {
    if (m_fd != -1) {
        close(m_fd);
    }
}

std::string SpillFile::Open() {
    m_fd = open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, kFileMode);
    struct stat status = {};
    if (m_fd == -1 || fstat(m_fd, &status) != 0) {
        return FailureText(m_path, errno);
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? m_path + ": another tarnctl uses this spill file"
                                    : FailureText(m_path, errno);
    }
    if (status.st_size == 0) {
        return WriteHead() ? "" : m_error;
    }
    Head head = {};
    if (!S_ISREG(status.st_mode) || !ReadHead(m_fd, head)) {
        return m_path + " is no spill file; name another one";
    }
    m_head = head;
    if (IsEmpty()) {
        m_head.limit = m_wantedLimit;
    }
    return WriteHead() ? "" : m_error;
}

bool SpillFile::ReadHead(int fd, Head& head) {
    return Whole(pread, fd, reinterpret_cast<char*>(&head), sizeof head, 0) &&
           std::memcmp(head.magic, kMagic.data(), sizeof head.magic) == 0 && head.limit != 0 &&
           head.writeAt >= head.readAt && head.writeAt - head.readAt <= head.limit;
}

bool SpillFile::WriteHead() {
    if (!Whole(pwrite, m_fd, reinterpret_cast<const char*>(&m_head), sizeof m_head, 0)) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    return true;
}

// Bytes that reach over the end of the ring go on at its start.
bool SpillFile::WriteBytes(uint64_t position, std::string_view bytes) {
    const uint64_t at = position % m_head.limit;
    const auto first = static_cast<size_t>(std::min<uint64_t>(bytes.size(), m_head.limit - at));
    if (!Whole(pwrite, m_fd, bytes.data(), first, sizeof m_head + at) ||
        !Whole(pwrite, m_fd, bytes.data() + first, bytes.size() - first, sizeof m_head)) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    return true;
}

bool SpillFile::ReadBytes(uint64_t position, std::string& bytes) {
    const uint64_t at = position % m_head.limit;
    const auto first = static_cast<size_t>(std::min<uint64_t>(bytes.size(), m_head.limit - at));
    if (!Whole(pread, m_fd, bytes.data(), first, sizeof m_head + at) ||
        !Whole(pread, m_fd, bytes.data() + first, bytes.size() - first, sizeof m_head)) {
        m_error = FailureText(m_path, errno);
        return false;
    }
    return true;
}

bool SpillFile::Append(std::string_view lines) {
    const uint64_t room = m_head.limit - (m_head.writeAt - m_head.readAt);
    std::string_view kept = lines.substr(0, std::min<uint64_t>(room, lines.size()));
    kept = kept.substr(0, kept.rfind('\n') + 1);
    if (!WriteBytes(m_head.writeAt, kept)) {
        return false;
    }
    const Head before = m_head;
    m_head.writeAt += kept.size();
    m_head.waiting += LinesOf(kept);
    m_head.lost += LinesOf(lines.substr(kept.size()));
    if (!WriteHead()) {
        m_head = before;
        return false;
    }
    m_error.clear();
    return true;
}

std::string_view SpillFile::Front() {
    const uint64_t waiting = m_head.writeAt - m_head.readAt;
    for (uint64_t size = kReadBytes; m_front.empty() && waiting != 0; size *= 2) {
        m_front.resize(static_cast<size_t>(std::min(size, waiting)));
        if (!ReadBytes(m_head.readAt, m_front)) {
            m_front.clear();
            break;
        }
        m_front.resize(m_front.rfind('\n') + 1);
        if (m_front.empty() && size >= waiting) {
            m_error = m_path + " holds what is no line; name another one";
            break;
        }
    }
    return m_front;
}

// The file gives its room back when nothing waits any more.
void SpillFile::Take(size_t bytes) {
    m_head.waiting -= LinesOf(std::string_view(m_front).substr(0, bytes));
    m_head.readAt += bytes;
    m_front.erase(0, bytes);
    if (IsEmpty()) {
        m_head.readAt = m_head.writeAt = 0;
        m_head.limit = m_wantedLimit;
    }
    // What is not stored is offered again by the next process, and that is all the harm.
    if (WriteHead() && IsEmpty()) {
        (void)!ftruncate(m_fd, sizeof m_head);
    }
}

std::optional<uint64_t> WaitingInSpillFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) {
        return std::nullopt;
    }
    SpillFile::Head head = {};
    const bool isRead = flock(fd, LOCK_SH | LOCK_NB) == 0 && SpillFile::ReadHead(fd, head);
    close(fd);
    return isRead ? std::optional(head.waiting) : std::nullopt;
}

}  // namespace tarnctl
