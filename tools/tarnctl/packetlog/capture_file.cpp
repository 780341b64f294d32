#include "tarnctl/packetlog/capture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr auto kSameOwner = static_cast<uid_t>(-1);

}  // namespace

bool CaptureFile::Open(const std::string& path, std::optional<gid_t> group) {
    Close();
    m_path = path;
    // A link or a FIFO that somebody has put in the file's place is not written through.
    m_fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                kFileMode);
    struct stat status = {};
    if (m_fd == -1 || fstat(m_fd, &status) != 0) {
        return Fail(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        Close();
        m_error = path + ": is there already and is no plain file; move it away first";
        return false;
    }
    m_bytes = static_cast<uint64_t>(status.st_size);
    // Set whatever the umask is. A file that has packets keeps what its owner has made of it.
    if (m_bytes == 0 &&
        (fchmod(m_fd, kFileMode) != 0 || (group && fchown(m_fd, kSameOwner, *group) != 0))) {
        const int error = errno;
        Close();
        m_error = error == EPERM ? path + ": cannot be given to the group; run this as a member"
                                 : FailureText(path, error);
        return false;
    }
    return true;
}

bool CaptureFile::Append(std::string_view bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(m_fd, bytes.data() + done, bytes.size() - done);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const int error = count == 0 ? ENOSPC : errno;
            // Should this fail as well, the file is closed with half a packet at its end, and the
            // next one begins anew.
            if (ftruncate(m_fd, static_cast<off_t>(m_bytes)) != 0) {
                Close();
            }
            m_error = FailureText(m_path, error);
            return false;
        }
        done += static_cast<size_t>(count);
    }
    m_bytes += bytes.size();
    return true;
}

void CaptureFile::Close() {
    if (m_fd != -1) {
        close(m_fd);
    }
    m_fd = -1;
    m_bytes = 0;
}

bool CaptureFile::HasItsName() const {
    struct stat own = {};
    struct stat named = {};
    return m_fd != -1 && fstat(m_fd, &own) == 0 && lstat(m_path.c_str(), &named) == 0 &&
           own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

bool CaptureFile::Fail(int error) {
    Close();
    m_error =
        error == ELOOP ? m_path + ": is a link; move it away first" : FailureText(m_path, error);
    return false;
}

}  // namespace tarnctl
