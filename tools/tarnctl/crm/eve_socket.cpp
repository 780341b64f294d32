#include "tarnctl/crm/eve_socket.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

// Whether all that was sent has been read. The kernel wakes nobody for that.
bool WaitUntilRead(int fd, std::chrono::steady_clock::time_point deadline) {
    constexpr std::chrono::microseconds kLookInterval{200};
    while (true) {
        int unread = 0;
        if (ioctl(fd, SIOCOUTQ, &unread) != 0 || unread == 0) {
            return true;
        }
        pollfd entry = {.fd = fd, .events = 0, .revents = 0};
        if (poll(&entry, 1, 0) == 1 || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kLookInterval);
    }
}

// Whether the other end has closed. What it has left unread is then gone, and the kernel counts it
// no longer.
bool IsClosed(int fd) {
    pollfd entry = {.fd = fd, .events = POLLRDHUP, .revents = 0};
    return poll(&entry, 1, 0) == 1;
}

}  // namespace

EveSocket::EveSocket(const std::string& path) : ReportSink("eve", "unix:" + path), m_path(path) {}

EveSocket::~EveSocket() {
    Disconnect();
}

std::string EveSocket::Open() {
    if (m_path.empty() || m_path.size() >= sizeof sockaddr_un::sun_path) {
        return "unix:" + m_path + ": the name of a socket has from 1 to " +
               std::to_string(sizeof sockaddr_un::sun_path - 1) + " bytes";
    }
    (void)Connect();  // a socket that is away is tried again at each offer
    return "";
}

bool EveSocket::Connect() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_path.data(), m_path.size());
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd == -1 ||
        connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        Fail(errno);
        return false;
    }
    return true;
}

void EveSocket::Disconnect() {
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
    m_sent = 0;
}

void EveSocket::Fail(int error) {
    Disconnect();
    switch (error) {
        case ECONNREFUSED:
        case ENOENT:
            SetAway(Target() + ": nobody listens");
            break;
        case EPIPE:
        case ECONNRESET:
            SetAway(Target() + ": the other end has closed");
            break;
        case EPROTOTYPE:
            SetAway(Target() + ": it is no stream socket");
            break;
        default:
            SetAway(FailureText(Target(), error));
    }
}

size_t EveSocket::Take(std::string_view lines) {
    const auto deadline = Clock::now() + kPatience;
    if (!IsDue() || (m_fd == -1 && !Connect())) {
        return 0;
    }
    while (m_sent < lines.size()) {
        const ssize_t count =
            send(m_fd, lines.data() + m_sent, lines.size() - m_sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            m_sent += static_cast<size_t>(count);
            continue;
        }
        pollfd entry = {.fd = m_fd, .events = POLLOUT, .revents = 0};
        if (errno == EAGAIN && Clock::now() < deadline &&
            poll(&entry, 1, static_cast<int>(kPatience.count())) == 1) {
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) {
            Fail(errno);
            return 0;
        }
        break;
    }
    const bool isRead = WaitUntilRead(m_fd, deadline);
    if (IsClosed(m_fd)) {
        Fail(EPIPE);
        return 0;
    }
    SetWell();
    const size_t taken = isRead ? WholeLines(lines, m_sent) : 0;
    m_sent -= taken;
    return taken;
}

void EveSocket::Reopen() {
    Disconnect();
    SetWell();
}

}  // namespace tarnctl
