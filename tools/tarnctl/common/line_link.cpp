#include "tarnctl/common/line_link.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {
namespace {

constexpr time_t kPatience = 10;  // seconds; a server looks at its socket many times a second

}  // namespace

LineLink::LineLink(std::string server, std::string advice)
    : m_server(std::move(server)), m_advice(std::move(advice)) {}

LineLink::~LineLink() {
    if (m_fd != -1) {
        close(m_fd);
    }
}

std::string LineLink::Open(const std::string& path) {
    m_path = path;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return FailureText(path, ENAMETOOLONG);
    }
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd == -1) {
        return FailureText(path, errno);
    }
    const timeval patience = {kPatience, 0};
    (void)setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        return error == ECONNREFUSED || error == ENOENT
                   ? path + ": no " + m_server + " is there; " + m_advice
                   : FailureText(path, error);
    }
    return "";
}

std::string LineLink::Ask(const std::string& line, nlohmann::ordered_json& answer) {
    const std::string text = line + "\n";
    if (send(m_fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        return FailureText(m_path, errno);
    }
    size_t end = 0;
    std::array<char, 65536> buffer;
    while ((end = m_text.find('\n', end)) == std::string::npos) {
        end = m_text.size();
        const ssize_t count = recv(m_fd, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            return m_path + ": the " + m_server + " does not answer";
        }
        m_text.append(buffer.data(), static_cast<size_t>(count));
    }
    answer = nlohmann::ordered_json::parse(m_text.substr(0, end), nullptr, false);
    m_text.erase(0, end + 1);
    return answer.is_object() ? "" : m_path + ": the answer is none of a " + m_server;
}

}  // namespace tarnctl
