#include "tarnctl/common/socket_file.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// What connect says about the path, as an errno; 0 when somebody receives there. It does not wait
// for a receiver that is busy.
int Probe(const sockaddr_un& address, int type) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) {
        return errno;
    }
    const int error =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
    close(fd);
    return error == EAGAIN ? 0 : error;
}

// Removes a name that a receiver left behind. Returns an empty string when the name is free.
std::string MakeWay(const std::string& path, const sockaddr_un& address, int type) {
    struct stat file = {};
    if (lstat(path.c_str(), &file) != 0) {
        const int error = errno;
        return error == ENOENT ? "" : FailureText(path, error);
    }
    if (!S_ISSOCK(file.st_mode)) {
        return path + ": is there already and is no socket; move it away first";
    }
    // Who gets EPROTOTYPE has found a receiver too, of another kind of socket.
    const int error = Probe(address, type);
    if (error == 0 || error == EPROTOTYPE) {
        return path + ": another receiver is there already; stop it first";
    }
    if (error != ECONNREFUSED) {
        return FailureText(path, error);
    }
    return unlink(path.c_str()) == 0 ? "" : FailureText(path, errno);
}

}  // namespace

SocketFile::~SocketFile() {
    if (m_fd == -1) {
        return;
    }
    struct stat file = {};
    if (lstat(m_path.c_str(), &file) == 0 && file.st_dev == m_file.st_dev &&
        file.st_ino == m_file.st_ino) {
        unlink(m_path.c_str());
    }
    close(m_fd);
}

std::string SocketFile::Open(const std::string& path, int type, mode_t mode) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return FailureText(path, ENAMETOOLONG);
    }
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::string obstacle = MakeWay(path, address, type);
    if (!obstacle.empty()) {
        return obstacle;
    }
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return FailureText(path, errno);
    }
    // The mode set before the name is made is the one that the file gets, so that nobody finds it
    // with another. What the umask takes away is given back.
    if (fchmod(fd, kForItsUserOnly) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        (mode != kForItsUserOnly && chmod(path.c_str(), mode) != 0) ||
        lstat(path.c_str(), &m_file) != 0) {
        const int error = errno;
        close(fd);
        return FailureText(path, error);
    }
    m_fd = fd;
    m_path = path;
    return "";
}

}  // namespace tarnctl
