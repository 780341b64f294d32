#include "tarnctl/common/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr mode_t kFileMode = 0644;

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count == -1 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return true;
}

// A rename is on the disk when its folder is.
int SyncFolder(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    const std::string folder = parent.empty() ? "." : parent.string();
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) {
        return errno;
    }
    const int error = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return error;
}

}  // namespace

std::string WriteFileAtOnce(const std::string& path, std::string_view text, Durability durability) {
    const std::string name = path + ".new";
    const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode);
    if (fd == -1) {
        return FailureText(name, errno);
    }
    int error = WriteAll(fd, text) ? 0 : errno;
    if (error == 0 && durability == Durability::kOnDisk && fsync(fd) != 0) {
        error = errno;
    }
    // Some file systems find out at the close that there is no room.
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && std::rename(name.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(name.c_str());
        return FailureText(path, error);
    }
    error = durability == Durability::kOnDisk ? SyncFolder(path) : 0;
    return error == 0 ? "" : FailureText(path + ": its folder", error);
}

}  // namespace tarnctl
