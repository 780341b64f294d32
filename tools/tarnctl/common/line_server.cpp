#include "tarnctl/common/line_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr int kWaiting = 8;          // connections that may wait to be accepted
constexpr size_t kMostClients = 16;  // more are refused

// Where the system does not say who it is, it is nobody.
uid_t UserOf(int fd) {
    ucred peer = {};
    socklen_t length = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.uid
                                                                        : static_cast<uid_t>(-1);
}

}  // namespace

LineServer::~LineServer() {
    for (const Connection& connection : m_connections) {
        close(connection.fd);
    }
}

std::string LineServer::Open(const std::string& path, mode_t mode) {
    std::string obstacle = m_socket.Open(path, SOCK_STREAM | SOCK_NONBLOCK, mode);
    if (obstacle.empty() && listen(m_socket.Descriptor(), kWaiting) != 0) {
        obstacle = FailureText(path, errno);
    }
    return obstacle;
}

void LineServer::Accept() {
    int fd = -1;
    while ((fd = accept4(m_socket.Descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) !=
           -1) {
        if (m_connections.size() < kMostClients) {
            m_connections.push_back(
                {.fd = fd, .client = {++m_lastId, UserOf(fd)}, .text = "", .answers = ""});
        } else {
            close(fd);
        }
    }
}

bool LineServer::Send(Connection& connection) {
    std::string& answers = connection.answers;
    size_t sent = 0;
    while (sent < answers.size()) {
        const ssize_t count =
            send(connection.fd, answers.data() + sent, answers.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            break;
        }
        sent += static_cast<size_t>(count);
    }
    const bool isThere = sent == answers.size() || errno == EAGAIN || errno == EINTR;
    answers.erase(0, sent);
    return isThere;
}

bool LineServer::AnswerLines(Connection& connection, const Answer& answer) {
    for (size_t end = 0;
         connection.answers.empty() && (end = connection.text.find('\n')) != std::string::npos;) {
        const std::string line = connection.text.substr(0, end);
        connection.text.erase(0, end + 1);
        if (line.size() > m_longestLine) {
            return false;
        }
        connection.answers = answer(connection.client, line) + "\n";
        if (!Send(connection)) {
            return false;
        }
    }
    const bool isWhole = connection.text.find('\n') != std::string::npos;
    return isWhole || connection.text.size() <= m_longestLine;
}

bool LineServer::ServeOne(Connection& connection, const Answer& answer) {
    std::array<char, 512> buffer;
    if (!Send(connection) || !AnswerLines(connection, answer)) {
        return false;
    }
    while (connection.answers.empty()) {
        const ssize_t count = recv(connection.fd, buffer.data(), buffer.size(), 0);
        if (count == -1) {
            return errno == EAGAIN || errno == EINTR;
        }
        if (count == 0) {
            return false;
        }
        connection.text.append(buffer.data(), static_cast<size_t>(count));
        if (!AnswerLines(connection, answer)) {
            return false;
        }
    }
    return true;
}

void LineServer::Serve(const Answer& answer, const Gone& gone) {
    Accept();
    for (Connection& connection : m_connections) {
        if (!ServeOne(connection, answer)) {
            gone(connection.client);
            close(connection.fd);
            connection.fd = -1;
        }
    }
    std::erase_if(m_connections, [](const Connection& connection) { return connection.fd == -1; });
}

void LineServer::AddTo(std::vector<pollfd>& entries) const {
    entries.push_back({m_socket.Descriptor(), POLLIN, 0});
    for (const Connection& connection : m_connections) {
        const short events = connection.answers.empty() ? POLLIN : POLLOUT;
        entries.push_back({connection.fd, events, 0});
    }
}

}  // namespace tarnctl
