#include "tarnctl/secmgr/secmgr_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <utility>
#include <vector>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr int kBacklog = 16;

}  // namespace

SecmgrServer::~SecmgrServer() {
    for (const Client& client : m_clients) {
        close(client.fd);
    }
}

std::string SecmgrServer::Open(const std::string& path) {
    std::string reason = m_socket.Open(path, SOCK_STREAM | SOCK_NONBLOCK);
    if (reason.empty() && listen(m_socket.Descriptor(), kBacklog) != 0) {
        reason = FailureText(path, errno);
    }
    return reason;
}

SecmgrServer::Result SecmgrServer::Next(SecmgrRequest& request, std::chrono::milliseconds time) {
    m_asked = false;
    const Result result = FromWhatIsThere(request);
    if (result != Result::kNothing) {
        return result;
    }
    Wait(time);
    return FromWhatIsThere(request);
}

// A client that was served goes to the end of the list, so that one that never stops asking does
// not keep the others waiting.
SecmgrServer::Result SecmgrServer::FromWhatIsThere(SecmgrRequest& request) {
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        const bool isOpen = !client->isReadable || Read(*client);
        client->isReadable = false;
        switch (client->frames.Next(request)) {
            case SecmgrFrames::Result::kRequest:
                m_clients.splice(m_clients.end(), m_clients, client);
                m_asked = true;
                return Result::kRequest;
            case SecmgrFrames::Result::kMalformed:
                KeepMalformed(*client, client->frames.Error());
                Close(client);
                return Result::kMalformed;
            case SecmgrFrames::Result::kNeedsMore:
                break;
        }
        if (isOpen) {
            ++client;
            continue;
        }
        const bool endedWithin = !client->frames.Waiting().empty();
        if (endedWithin) {
            KeepMalformed(*client, "the connection ended within it");
        }
        client = Close(client);
        if (endedWithin) {
            return Result::kMalformed;
        }
    }
    return Result::kNothing;
}

void SecmgrServer::KeepMalformed(const Client& client, std::string reason) {
    const std::span<const std::byte> bytes = client.frames.Waiting();
    m_error = std::move(reason);
    m_malformed.assign(bytes.begin(), bytes.end());
}

void SecmgrServer::Wait(std::chrono::milliseconds time) {
    std::vector<pollfd> entries = {{m_socket.Descriptor(), POLLIN, 0}};
    for (const Client& client : m_clients) {
        entries.push_back({client.fd, POLLIN, 0});
    }
    if (m_addWakers) {
        m_addWakers(entries);
    }
    if (poll(entries.data(), entries.size(), static_cast<int>(time.count())) <= 0) {
        return;
    }
    auto entry = std::next(entries.begin());
    for (Client& client : m_clients) {
        client.isReadable = entry->revents != 0;
        ++entry;
    }
    if (entries.front().revents != 0) {
        Accept();
    }
}

void SecmgrServer::Accept() {
    const int fd = accept4(m_socket.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd != -1) {
        m_clients.push_back({.fd = fd, .frames = {}});
    }
}

bool SecmgrServer::Read(Client& client) {
    std::array<std::byte, 16384> bytes = {};
    const ssize_t length = recv(client.fd, bytes.data(), bytes.size(), 0);
    if (length > 0) {
        client.frames.Append(std::span(bytes).first(static_cast<size_t>(length)));
        return true;
    }
    return length == -1 && (errno == EAGAIN || errno == EINTR);
}

bool SecmgrServer::Answer(const SecmgrAnswer& answer) {
    if (!m_asked) {
        return false;
    }
    m_asked = false;
    const auto client = std::prev(m_clients.end());
    const std::vector<std::byte> bytes = AnswerBytes(answer);
    const bool isTaken = bytes.empty() || send(client->fd, bytes.data(), bytes.size(),
                                               MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    if (!isTaken || ClosesConnection(answer)) {
        Close(client);
    }
    return isTaken;
}

SecmgrServer::Clients::iterator SecmgrServer::Close(Clients::iterator client) {
    close(client->fd);
    return m_clients.erase(client);
}

}  // namespace tarnctl
