#include "tarnctl/feed/control_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/feed_words.h"

namespace tarnctl {
namespace {

constexpr int kWaiting = 8;              // connections that may wait to be accepted
constexpr size_t kMostClients = 16;      // more are refused
constexpr size_t kLongestRequest = 256;  // bytes without a line end

// A client that does not read its answer is not waited for any longer than this.
constexpr int kPatience = 1000;  // milliseconds

bool SendLine(int fd, std::string_view line) {
    while (!line.empty()) {
        const ssize_t count = send(fd, line.data(), line.size(), MSG_NOSIGNAL);
        pollfd entry = {fd, POLLOUT, 0};
        if (count > 0) {
            line.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EAGAIN || poll(&entry, 1, kPatience) <= 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

ControlServer::~ControlServer() {
    for (const Client& client : m_clients) {
        close(client.fd);
    }
}

std::string ControlServer::Open(const std::string& path) {
    std::string obstacle = m_socket.Open(path, SOCK_STREAM | SOCK_NONBLOCK);
    if (obstacle.empty() && listen(m_socket.Descriptor(), kWaiting) != 0) {
        obstacle = FailureText(path, errno);
    }
    return obstacle;
}

void ControlServer::Accept() {
    int fd = -1;
    while ((fd = accept4(m_socket.Descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) !=
           -1) {
        if (m_clients.size() < kMostClients) {
            m_clients.push_back({fd, ""});
        } else {
            close(fd);
        }
    }
}

bool ControlServer::ServeClient(Client& client, const Answer& answer) {
    std::array<char, 512> buffer;
    while (true) {
        const ssize_t count = recv(client.fd, buffer.data(), buffer.size(), 0);
        if (count == -1) {
            return errno == EAGAIN || errno == EINTR;
        }
        if (count == 0) {
            return false;
        }
        client.text.append(buffer.data(), static_cast<size_t>(count));
        for (size_t end = 0; (end = client.text.find('\n')) != std::string::npos;) {
            const std::string word = client.text.substr(0, end);
            client.text.erase(0, end + 1);
            if (word == kFeedHold && m_holder == -1) {
                m_holder = client.fd;
            } else if ((word == kFeedRelease || word == kFeedReloaded) && m_holder == client.fd) {
                m_holder = -1;
            }
            if (!SendLine(client.fd, answer(word) + "\n")) {
                return false;
            }
        }
        if (client.text.size() > kLongestRequest) {
            return false;
        }
    }
}

void ControlServer::Serve(const Answer& answer) {
    Accept();
    for (Client& client : m_clients) {
        if (!ServeClient(client, answer)) {
            if (m_holder == client.fd) {
                m_holder = -1;
            }
            close(client.fd);
            client.fd = -1;
        }
    }
    std::erase_if(m_clients, [](const Client& client) { return client.fd == -1; });
}

void ControlServer::AddTo(std::vector<pollfd>& entries) const {
    entries.push_back({m_socket.Descriptor(), POLLIN, 0});
    for (const Client& client : m_clients) {
        entries.push_back({client.fd, POLLIN, 0});
    }
}

}  // namespace tarnctl
