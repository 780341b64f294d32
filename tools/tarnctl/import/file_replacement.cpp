#include "tarnctl/import/file_replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/snort_rules/text_file.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kModeBits = 07777;

// The new file, which is removed unless it takes the old one's place.
class NewFile {
  public:
    explicit NewFile(const std::string& target) : m_name(target + ".import-XXXXXX") {
        m_fd = mkostemp(m_name.data(), O_CLOEXEC);  // opens with O_EXCL
    }
    ~NewFile() {
        if (m_fd != -1) {
            (void)Close();
            unlink(m_name.c_str());
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    [[nodiscard]] bool IsOpen() const { return m_fd != -1; }

    [[nodiscard]] bool Write(std::string_view text) const {
        while (!text.empty()) {
            const ssize_t count = write(m_fd, text.data(), text.size());
            if (count == -1 && errno != EINTR) {
                return false;
            }
            text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
        }
        return true;
    }

    // The owner is set first, since that takes bits off the mode.
    [[nodiscard]] bool TakeAttributes(const FileState& state) const {
        if (!state.exists) {
            const mode_t mask = umask(0);
            umask(mask);
            return fchmod(m_fd, state.mode & ~mask) == 0;
        }
        struct stat own = {};
        const bool isSame =
            fstat(m_fd, &own) == 0 && own.st_uid == state.owner && own.st_gid == state.group;
        return (isSame || fchown(m_fd, state.owner, state.group) == 0) &&
               fchmod(m_fd, state.mode) == 0;
    }

    // At a hangup the daemon compares modification times in whole seconds, and passes over a file
    // whose own is that of the file it has read.
    [[nodiscard]] bool BecomeNewer(const FileState& state) const {
        struct stat status = {};
        if (fstat(m_fd, &status) != 0) {
            return false;
        }
        if (!state.exists || status.st_mtim.tv_sec != state.second) {
            return true;
        }
        const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT},
                                  {.tv_sec = status.st_mtim.tv_sec + 1, .tv_nsec = 0}};
        return futimens(m_fd, times) == 0;
    }

    [[nodiscard]] bool Sync() const { return fsync(m_fd) == 0; }

    [[nodiscard]] bool Rename(const std::string& target) {
        if (rename(m_name.c_str(), target.c_str()) != 0) {
            return false;
        }
        (void)Close();  // what was written is on the disk already
        m_fd = -1;
        return true;
    }

  private:
    [[nodiscard]] int Close() const { return close(m_fd); }

    std::string m_name;
    int m_fd = -1;  // owned; -1 after the rename
};

void Assign(const struct stat& status, FileState& state) {
    state.exists = true;
    state.mode = status.st_mode & kModeBits;
    state.owner = status.st_uid;
    state.group = status.st_gid;
    state.inode = status.st_ino;
    state.size = status.st_size;
    state.second = status.st_mtim.tv_sec;
    state.nanosecond = status.st_mtim.tv_nsec;
}

bool IsUnchanged(const FileState& state) {
    struct stat status = {};
    if (stat(state.path.c_str(), &status) != 0) {
        return !state.exists && errno == ENOENT;
    }
    FileState now;
    Assign(status, now);
    return state.exists && now.inode == state.inode && now.size == state.size &&
           now.second == state.second && now.nanosecond == state.nanosecond;
}

bool SyncFolder(const std::string& path) {
    const std::string folder = fs::path(path).parent_path().string();
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    const bool isSynced = fsync(fd) == 0;
    close(fd);
    return isSynced;
}

}  // namespace

std::string ReadState(const std::string& path, FileState& state) {
    std::error_code ignored;
    const fs::path target = fs::weakly_canonical(fs::absolute(path), ignored);
    state.path = target.empty() ? path : target.string();
    struct stat status = {};
    if (stat(state.path.c_str(), &status) != 0) {
        const int error = errno;
        return error == ENOENT ? "" : FailureText(path, error);
    }
    if (!S_ISREG(status.st_mode)) {
        return path + " is no plain file";
    }
    const int error = ReadTextFile(state.path, state.text, &status);
    if (error != 0) {
        return FailureText(path, error);
    }
    Assign(status, state);
    return "";
}

std::string ReplaceFile(const FileState& state, std::string_view text,
                        const std::function<void()>& beforeRename) {
    NewFile file(state.path);
    if (!file.IsOpen()) {
        return FailureText(state.path + ": the new file beside it", errno);
    }
    if (!file.Write(text)) {
        return FailureText(state.path + ": the new file beside it", errno);
    }
    if (!file.TakeAttributes(state)) {
        return FailureText(state.path + ": its mode and owner cannot be kept", errno);
    }
    if (!file.BecomeNewer(state)) {
        return FailureText(state.path + ": the time of the new file beside it", errno);
    }
    if (!file.Sync()) {
        return FailureText(state.path + ": the new file beside it", errno);
    }
    if (beforeRename) {
        beforeRename();
    }
    if (!IsUnchanged(state)) {
        return state.path + " has been changed by somebody else meanwhile; run this again";
    }
    if (!file.Rename(state.path)) {
        return FailureText(state.path, errno);
    }
    if (!SyncFolder(state.path)) {
        return FailureText(state.path + ": its folder cannot be synchronized", errno);
    }
    return "";
}

}  // namespace tarnctl
