#include "tarnctl/message_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace tarnctl {
namespace {

bool MakeAddress(const std::string& path, sockaddr_un& address) {
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return true;
}

// What connect says about the path, as an errno; 0 when somebody receives there.
int ProbeReceiver(const sockaddr_un& address) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return errno;
    }
    const int error =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
    close(fd);
    return error;
}

}  // namespace

MessageSocket::MessageSocket(std::string path) : m_path(std::move(path)) {}

MessageSocket::~MessageSocket() {
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

bool MessageSocket::Open() {
    if (!MakeWay()) {
        return false;
    }
    sockaddr_un address = {};
    (void)MakeAddress(m_path, address);  // MakeWay has done so as well
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return Fail(std::strerror(errno));
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        lstat(m_path.c_str(), &m_file) != 0) {
        const int error = errno;
        close(fd);
        return Fail(std::strerror(error));
    }
    m_fd = fd;
    return true;
}

bool MessageSocket::MakeWay() {
    sockaddr_un address = {};
    if (!MakeAddress(m_path, address)) {
        return Fail(std::strerror(ENAMETOOLONG));
    }
    struct stat file = {};
    if (lstat(m_path.c_str(), &file) != 0) {
        const int error = errno;
        return error == ENOENT || Fail(std::strerror(error));
    }
    if (!S_ISSOCK(file.st_mode)) {
        return Fail("is there already and is no socket");
    }
    switch (const int error = ProbeReceiver(address)) {
        case 0:
            return Fail("another receiver is there already");
        case ECONNREFUSED:
            if (unlink(m_path.c_str()) != 0) {
                return Fail(std::strerror(errno));
            }
            return true;
        default:
            return Fail(std::strerror(error));
    }
}

bool MessageSocket::Next(std::span<const std::byte>& bytes, std::chrono::milliseconds time) {
    pollfd entry = {.fd = m_fd, .events = POLLIN, .revents = 0};
    if (poll(&entry, 1, static_cast<int>(time.count())) <= 0) {
        return false;
    }
    const ssize_t length = recv(m_fd, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
    if (length < 0) {
        return false;
    }
    bytes = std::span(m_buffer).first(static_cast<std::size_t>(length));
    return true;
}

bool MessageSocket::Fail(const std::string& reason) {
    m_error = m_path + ": " + reason;
    return false;
}

}  // namespace tarnctl
