#pragma once

// A Unix socket bound to a path, as each peer of the daemon has one. Both are gone with the object.
//
// Threads: the test's own.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

class BoundSocket {
  public:
    using Bytes = std::vector<uint8_t>;

    // The type is SOCK_DGRAM or SOCK_STREAM; the latter still has to listen.
    BoundSocket(int type, std::string path)
        : m_path(std::move(path)), m_fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof(address.sun_path) - 1);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            close(m_fd);
            throw std::runtime_error("no socket at " + m_path);
        }
    }
    ~BoundSocket() {
        close(m_fd);
        unlink(m_path.c_str());
    }
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    // The next datagram; empty when none comes within the time.
    [[nodiscard]] Bytes Take(int timeoutMs = 0) const {
        pollfd entry = {.fd = m_fd, .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, timeoutMs) <= 0) {
            return {};
        }
        Bytes datagram(1 << 18);  // more than a socket's buffer takes
        const ssize_t length = recv(m_fd, datagram.data(), datagram.size(), MSG_DONTWAIT);
        datagram.resize(length < 0 ? 0 : static_cast<size_t>(length));
        return datagram;
    }

    [[nodiscard]] int Descriptor() const { return m_fd; }

  private:
    const std::string m_path;
    const int m_fd;
};
