#include "tarnctl/common/message_socket.h"

#include <poll.h>
#include <sys/socket.h>

namespace tarnctl {

std::string MessageSocket::Open(const std::string& path) {
    return m_socket.Open(path, SOCK_DGRAM);
}

bool MessageSocket::Next(std::span<const std::byte>& bytes, std::chrono::milliseconds time) {
    pollfd entry = {.fd = m_socket.Descriptor(), .events = POLLIN, .revents = 0};
    if (poll(&entry, 1, static_cast<int>(time.count())) <= 0) {
        return false;
    }
    const ssize_t length = recv(entry.fd, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
    if (length < 0) {
        return false;
    }
    bytes = std::span(m_buffer).first(static_cast<size_t>(length));
    return true;
}

}  // namespace tarnctl
