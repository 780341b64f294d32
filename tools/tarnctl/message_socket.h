#pragma once

// A datagram socket's receiving end: the CRM's for messages, the packet logging daemon's for
// requests.
//
// The socket's file belongs to whoever receives. One that a receiver left behind is removed, one
// that somebody listens on is left alone, and so is anything that is no socket.
//
// Threads: one at a time.

#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>

namespace tarnctl {

class MessageSocket {
  public:
    explicit MessageSocket(std::string path);
    // Removes the file, if it is still this one's.
    ~MessageSocket();
    MessageSocket(const MessageSocket&) = delete;
    MessageSocket& operator=(const MessageSocket&) = delete;

    // False with the reason in Error().
    [[nodiscard]] bool Open();

    // Takes one datagram, of which `bytes` stays until the next call. False when none comes within
    // the time, and at a signal.
    [[nodiscard]] bool Next(std::span<const std::byte>& bytes, std::chrono::milliseconds time);

    [[nodiscard]] const std::string& Error() const { return m_error; }

  private:
    [[nodiscard]] bool MakeWay();
    [[nodiscard]] bool Fail(const std::string& reason);

    const std::string m_path;
    int m_fd = -1;                           // owned
    struct stat m_file = {};                 // the file that Open made
    std::array<std::byte, 262144> m_buffer;  // longer than any message, so that a long one shows
    std::string m_error;
};

}  // namespace tarnctl
