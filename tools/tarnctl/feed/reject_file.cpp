#include "tarnctl/feed/reject_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// Alerts and packets are nobody else's business.
constexpr mode_t kFileMode = 0600;

}  // namespace

RejectFile::RejectFile(std::string path) : m_path(std::move(path)) {}

RejectFile::~RejectFile() {
    Close();
}

void RejectFile::Close() {
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
}

std::string RejectFile::CutTo(const std::optional<RejectsPlace>& place) const {
    struct stat status = {};
    if (!place || stat(m_path.c_str(), &status) != 0 || status.st_ino != place->inode ||
        status.st_dev != place->device || status.st_size <= static_cast<off_t>(place->size)) {
        return "";
    }
    const int cut = truncate(m_path.c_str(), static_cast<off_t>(place->size));
    return cut == 0 ? "" : FailureText(m_path, errno);
}

std::string RejectFile::Open() {
    if (m_fd == -1) {
        m_fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode);
    }
    return m_fd == -1 ? FailureText(m_path, errno) : "";
}

std::string RejectFile::Add(std::span<const std::byte> record) {
    struct stat status = {};
    if (fstat(m_fd, &status) != 0) {
        return FailureText(m_path, errno);
    }
    const ssize_t count = write(m_fd, record.data(), record.size());
    if (count == static_cast<ssize_t>(record.size())) {
        m_hasNews = true;
        return "";
    }
    const int error = count == -1 ? errno : ENOSPC;
    if (count > 0 && ftruncate(m_fd, status.st_size) != 0) {
        return m_path + ": half a record at its end, which cannot be taken off";
    }
    return FailureText(m_path, error);
}

std::string RejectFile::Sync() {
    if (m_hasNews && fdatasync(m_fd) != 0) {
        return FailureText(m_path, errno);
    }
    m_hasNews = false;
    return "";
}

std::optional<RejectsPlace> RejectFile::Place() const {
    struct stat status = {};
    const int result = m_fd != -1 ? fstat(m_fd, &status) : stat(m_path.c_str(), &status);
    if (result != 0) {
        return std::nullopt;
    }
    return RejectsPlace{status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size)};
}

}  // namespace tarnctl
